#ifndef QUILLON_AUTOUPDATER_STREAM_DIGEST_H
#define QUILLON_AUTOUPDATER_STREAM_DIGEST_H

#include "md5.h"

#include <QByteArray>
#include <QCryptographicHash>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

// The MD5 digest (and, when asked for, the SHA-256 digest) of a stream of
// bytes, worked out on a thread of its own while the caller goes on receiving
// and writing: hashing a large pack then costs no time after its last byte.
//
// Chunks are queued by reference, since QByteArray shares its data; a chunk
// must not change once added. At most MAX_QUEUED bytes wait at a time: past
// that, add() waits for the thread, which holds the network back in turn.
// The thread starts with the first chunk, so a run that hashes nothing never
// starts it.
class StreamDigest {
public:
    static const qint64 MAX_QUEUED = 256 * 1024;

    StreamDigest() = default;
    ~StreamDigest();
    StreamDigest(const StreamDigest &) = delete;
    StreamDigest &operator=(const StreamDigest &) = delete;

    // Starts over, dropping what is still queued.
    void reset(bool with_sha256);
    void add(const QByteArray &chunk);
    // Bytes added since the last reset.
    qint64 size() const { return added; }
    // Lower-case hexadecimal digests of everything added, once it is hashed.
    QByteArray md5Hex();
    QByteArray sha256Hex();

private:
    void run();
    void waitUntilHashed(std::unique_lock<std::mutex> &lock);

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<QByteArray> queue;
    qint64 queued = 0;
    bool hashing = false;
    bool stopping = false;
    bool with_sha256 = false;
    qint64 added = 0;
    Md5 md5;
    QCryptographicHash sha256{QCryptographicHash::Sha256};
    std::thread worker;
};

#endif
