#ifndef QUILLON_AUTOUPDATER_UPDATE_DOWNLOADER_H
#define QUILLON_AUTOUPDATER_UPDATE_DOWNLOADER_H

#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QObject>
#include <QString>

#include "stream-digest.h"

class QFile;
class QNetworkReply;
class QNetworkRequest;
class QTimer;
class QUrl;

// Downloads one file into "<save path>.download", resuming whatever an
// earlier attempt left there with an open-ended "Range" request, and moves it
// to the save path only once its MD5 digest matches the announced one (and,
// when they are given, its size and SHA-256 digest).
//
// Network and proxy failures (a cut connection, a stall, an abort) keep the
// temporary file so that the next download() continues it; HTTP refusals and
// digest mismatches remove it so the next attempt starts from the beginning.
// Results are only ever reported from the event loop, after download() has
// returned: exactly one finished() or error() per download.
//
// The temporary file usually sits in a folder every local user can write to,
// and the server is only trusted to deliver the bytes the digest vouches for:
// the file is never opened through a link or when someone else planted it,
// only http and https are fetched (redirects never from https down to http),
// a server that ignores "Range" has its whole answer written from byte 0, an
// answer for the wrong range is refused before a byte of it is written, and a
// write the disk refuses ends the transfer at once. With an expected size, an
// answer announcing more is refused before a byte of it is written, and a body
// that goes on past that size is cut off there: an endless answer cannot fill
// the disk.
class UpdateDownloader : public QObject {
    Q_OBJECT

public:
    // The numeric values are the updater's exit statuses; the first six match
    // UpdateQuerier::UpdateQuerierError.
    enum UpdateDownloaderError {
        NoError = 0,
        NetworkError = 1,
        ProxyError = 2,
        HttpError = 3,
        AppError = 4,
        UnknownError = 5,
        SysError = 6,
    };
    Q_ENUM(UpdateDownloaderError)

    static const QString TEMP_EXT;
    static const int DEFAULT_TIMEOUT = 120000;

    explicit UpdateDownloader(QObject *parent = nullptr);

    void download();

    QString getDownloadUrl() const { return download_url; }
    void setDownloadUrl(const QString &url) { download_url = url; }
    QString getSavePath() const { return save_path; }
    void setSavePath(const QString &path) { save_path = path; }
    QString getExpectChecksum() const { return expect_checksum; }
    void setExpectChecksum(const QString &checksum) { expect_checksum = checksum; }
    // -1: any size.
    void setExpectSize(qint64 size) { expect_size = size; }
    // Hexadecimal, any case; empty: not checked, and not computed either.
    void setExpectSha256(const QByteArray &hex) { expect_sha256 = hex; }
    int getTimeout() const { return timeout; }
    void setTimeout(int msec) { timeout = msec; }

    void setProxy(const QNetworkProxy &proxy);

    // True when the MD5 digest of the file equals checksum (hexadecimal, any
    // case), its size equals size unless that is -1, and its SHA-256 digest
    // equals sha256 unless that is empty. With nothing to check it matches
    // anything, without touching the file.
    static bool isChecksumMatched(const QString &file_path, const QString &checksum,
                                  qint64 size = -1, const QByteArray &sha256 = QByteArray());

    // Whether a redirect from the URL asked for to the resolved target may be
    // followed: the target must be http or https, and an https request must
    // not be sent on over plain http.
    static bool isAllowedRedirect(const QUrl &from, const QUrl &to);

signals:
    void finished();
    void error(UpdateDownloader::UpdateDownloaderError code, QString reason);
    void downloadProgress(qint64 bytes_received, qint64 bytes_total);

public slots:
    void abort();
    void readyRead();
    void downloadFinished();
    // The manager's accessibility notification is deprecated but still
    // delivered; losing the network must abort a transfer that would otherwise
    // only end with the stall time-out.
#ifndef Q_MOC_RUN // moc cannot parse the pragmas these expand to
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
#endif
    void networkAccessibleChanged(QNetworkAccessManager::NetworkAccessibility accessible);
#ifndef Q_MOC_RUN
    QT_WARNING_POP
#endif
    void queryTimeout();
    void adjustDownloadProgress(qint64 bytes_received, qint64 bytes_total);

private:
    bool openDownloadFile();
    bool isResumeDownload();
    void prepareResumeDownlaodRequest(QNetworkRequest &request);
    void reset();
    void examineAnswer();
    void failTransfer(UpdateDownloaderError code, const QString &reason);
    bool moveToSavePath();
    void reportInterrupted(int code, const QString &reason);
    qint64 announcedSize() const;
    qint64 announcedTotal() const;
    bool hashExistingPrefix(int fd, qint64 size);
    void hashWritten(const QByteArray &chunk);
    bool hasExpectedDigest() const;
    QString findMismatch();

    // What happens to the body of the reply in flight; decided once, from its
    // status and headers, before the first byte of it is written.
    enum class BodyAction {
        Undecided,
        Write,   // onto the end of the temporary file
        Discard, // the reply is refused or has already failed
    };

    QNetworkAccessManager *manager;
    QNetworkReply *reply;
    QTimer *timer;
    QString download_url;
    QString save_path;
    QFile *download_file;
    QString expect_checksum;
    qint64 expect_size;
    QByteArray expect_sha256;
    // Bytes the temporary file held when it was opened: the resume offset.
    qint64 file_size;
    // MD5 (and, when one is expected, SHA-256) of everything in the temporary
    // file, and its size, kept up to date as bytes are written, so a finished
    // file is never read back for its digest.
    StreamDigest hashes;
    int timeout;
    // Redirects followed so far by this object; never reset.
    int max_redirect;
    BodyAction body_action;
    // A failure found while the reply was still arriving, reported once the
    // abort it triggers has finished the reply; NoError when there is none.
    UpdateDownloaderError pending_error;
    QString pending_reason;
};

#endif
