#include "stream-digest.h"

StreamDigest::~StreamDigest() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    changed.notify_all();
    if (worker.joinable())
        worker.join();
}

void StreamDigest::reset(bool sha256_too) {
    std::unique_lock<std::mutex> lock(mutex);
    queue.clear();
    queued = 0;
    // The chunk in hand is finished before the digests start over.
    changed.wait(lock, [this] { return !hashing; });
    md5.reset();
    sha256.reset();
    with_sha256 = sha256_too;
    added = 0;
}

void StreamDigest::add(const QByteArray &chunk) {
    if (chunk.isEmpty())
        return;
    std::unique_lock<std::mutex> lock(mutex);
    if (!worker.joinable())
        worker = std::thread(&StreamDigest::run, this);
    changed.wait(lock, [this] { return queued < MAX_QUEUED; });
    queue.push_back(chunk);
    queued += chunk.size();
    added += chunk.size();
    lock.unlock();
    changed.notify_all();
}

void StreamDigest::waitUntilHashed(std::unique_lock<std::mutex> &lock) {
    changed.wait(lock, [this] { return queue.empty() && !hashing; });
}

QByteArray StreamDigest::md5Hex() {
    std::unique_lock<std::mutex> lock(mutex);
    waitUntilHashed(lock);
    return md5.result().toHex();
}

QByteArray StreamDigest::sha256Hex() {
    std::unique_lock<std::mutex> lock(mutex);
    waitUntilHashed(lock);
    return sha256.result().toHex();
}

void StreamDigest::run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return stopping || !queue.empty(); });
        if (stopping)
            return;
        const QByteArray chunk = queue.front();
        queue.pop_front();
        queued -= chunk.size();
        const bool sha256_too = with_sha256;
        hashing = true;
        lock.unlock();
        // The digests are only touched here and, while nothing is being
        // hashed, under the lock; so they need no lock of their own.
        md5.addData(chunk);
        if (sha256_too)
            sha256.addData(chunk);
        lock.lock();
        hashing = false;
        changed.notify_all();
    }
}
