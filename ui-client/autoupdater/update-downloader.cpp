#include "update-downloader.h"

#include "log/log.h"
#include "md5.h"
#include "tls-trust.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QMetaObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTimer>
#include <QUrl>

#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
const char *const LOG_COMPONENT = "auto_updater";
// Redirects are counted over the object's life; 33 are followed, the 34th fails.
const int REDIRECT_LIMIT = 32;
// Update packs can be large: the digest is computed over chunks of this size
// so memory stays flat whatever the file's size.
const qint64 HASH_CHUNK_SIZE = 1024 * 1024;
// How much received data the network library may hold before it stops
// reading from the connection until readyRead() has drained it. Without a
// limit it reads as fast as the peer sends, and a fast server fills memory
// with data the disk has not taken yet. It is also the size of the chunks the
// data arrives in: small enough that the allocator recycles them (see
// initializeAllocator()), large enough that a chunk costs little in events.
const qint64 READ_BUFFER_SIZE = 256 * 1024;

bool isScheme(const QUrl &url, const char *scheme) {
    return url.scheme().compare(QLatin1String(scheme), Qt::CaseInsensitive) == 0;
}

bool isHttpUrl(const QUrl &url) {
    return isScheme(url, "http") || isScheme(url, "https");
}

QString errnoText(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

// The first byte position (field 1) or the whole length (field 3) of a
// "Content-Range: bytes first-last/length" header; -1 when the header is
// missing or malformed, or the length is not known ("*").
qint64 contentRangeField(const QByteArray &header, int field) {
    static const QRegularExpression form(
        QStringLiteral("^\\s*bytes\\s+(\\d+)-(\\d+)/(\\d+|\\*)\\s*$"),
        QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(header));
    if (!match.hasMatch())
        return -1;
    bool ok = false;
    const qint64 value = match.captured(field).toLongLong(&ok);
    return ok ? value : -1;
}
} // namespace

const QString UpdateDownloader::TEMP_EXT = QStringLiteral(".download");

UpdateDownloader::UpdateDownloader(QObject *parent)
    : QObject(parent), manager(new QNetworkAccessManager(this)), reply(nullptr),
      timer(new QTimer(this)), download_file(nullptr), expect_size(-1), file_size(0),
      timeout(DEFAULT_TIMEOUT), max_redirect(0), body_action(BodyAction::Undecided),
      pending_error(NoError) {
    // Registered by name so the code can travel through queued and
    // signature-named connections, not only through direct ones.
    qRegisterMetaType<UpdateDownloader::UpdateDownloaderError>();
    logCertificateProblems(manager);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, &UpdateDownloader::queryTimeout);
    setTimeout(DEFAULT_TIMEOUT);
}

void UpdateDownloader::setProxy(const QNetworkProxy &proxy) {
    manager->setProxy(proxy);
}

bool UpdateDownloader::isAllowedRedirect(const QUrl &from, const QUrl &to) {
    // The network library would as readily copy a local file or a data: URL
    // into the download, letting whoever answers choose what lands there; and
    // leaving https for http would hand the file to anyone on the path.
    if (!isHttpUrl(to))
        return false;
    return !(isScheme(from, "https") && isScheme(to, "http"));
}

void UpdateDownloader::download() {
    const QUrl url(download_url, QUrl::TolerantMode);
    // The URL comes from the server's answer: a file:, qrc: or data: URL would
    // be served by the network library from this machine or from the URL
    // itself. Nothing is opened or sent for it.
    if (!isHttpUrl(url)) {
        QLOG_ERROR(LOG_COMPONENT, "Fail to download file '%s'. (reason: unsupported scheme)",
                   qUtf8Printable(download_url));
        // download() is called by the controller, which may end the event loop
        // in reaction: the failure must arrive once control is back in the loop.
        QMetaObject::invokeMethod(
            this,
            [this]() {
                emit error(AppError,
                           QStringLiteral("Download failed since unsupported url scheme"));
            },
            Qt::QueuedConnection);
        return;
    }

    if (!openDownloadFile())
        return;

    // A process stopped between the last byte and the rename leaves the whole
    // file behind: asking for the range after its end would only be refused,
    // and the refusal would throw the file away.
    if (isResumeDownload() && hasExpectedDigest() && findMismatch().isEmpty()) {
        QLOG_INFO(LOG_COMPONENT, "Temp file '%s' already complete, no download needed.",
                  qUtf8Printable(save_path + TEMP_EXT));
        download_file->close();
        const bool moved = moveToSavePath();
        const qint64 size = file_size;
        reset();
        QMetaObject::invokeMethod(
            this,
            [this, moved, size]() {
                if (!moved) {
                    emit error(SysError, QStringLiteral("Fail to rename temp file"));
                    return;
                }
                emit downloadProgress(size, size);
                emit finished();
            },
            Qt::QueuedConnection);
        return;
    }

    // Not complete, yet as long as the whole file or longer: whatever it holds
    // is not the start of this file, and asking for the bytes after its end
    // would only be refused.
    if (expect_size >= 0 && file_size > 0 && file_size >= expect_size) {
        QLOG_INFO(LOG_COMPONENT,
                  "Temp file '%s' is not the expected file, download restarts from byte 0.",
                  qUtf8Printable(save_path + TEMP_EXT));
        if (!download_file->resize(0)) {
            QLOG_ERROR(LOG_COMPONENT, "Fail to write temp file '%s'. (reason: %s)",
                       qUtf8Printable(save_path + TEMP_EXT),
                       qUtf8Printable(download_file->errorString()));
            QFile::remove(save_path + TEMP_EXT);
            reset();
            QMetaObject::invokeMethod(
                this, [this]() { emit error(SysError, QStringLiteral("fail to write temp file")); },
                Qt::QueuedConnection);
            return;
        }
        file_size = 0;
        hashes.reset(!expect_sha256.isEmpty());
    }

    prepareTrustFor(url);
    QNetworkRequest request(url);
    if (isResumeDownload())
        prepareResumeDownlaodRequest(request);

    body_action = BodyAction::Undecided;
    pending_error = NoError;
    pending_reason.clear();
    timer->start(getTimeout());
    reply = manager->get(request);
    reply->setReadBufferSize(READ_BUFFER_SIZE);

    // The status and headers decide what becomes of the body; they arrive
    // before it, and are looked at again on the first readyRead in case they
    // did not announce themselves.
    QNetworkReply *current = reply;
    connect(reply, &QNetworkReply::metaDataChanged, this, [this, current]() {
        if (current == reply)
            examineAnswer();
    });
    connect(reply, &QNetworkReply::readyRead, this, &UpdateDownloader::readyRead);
    connect(reply, &QNetworkReply::finished, this, &UpdateDownloader::downloadFinished);
    connect(reply, &QNetworkReply::downloadProgress, this,
            &UpdateDownloader::adjustDownloadProgress);
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    connect(manager, &QNetworkAccessManager::networkAccessibleChanged, this,
            &UpdateDownloader::networkAccessibleChanged, Qt::UniqueConnection);
    QT_WARNING_POP
}

bool UpdateDownloader::openDownloadFile() {
    const QString temp_path = save_path + TEMP_EXT;
    const QByteArray native = QFile::encodeName(temp_path);

    // The temporary folder is shared with every local user, and the name is
    // predictable: whatever someone else put there must be neither written
    // through nor resumed from. The file is opened without following a link
    // (nor blocking on a FIFO), created only when nothing is there yet, and
    // kept only when it turns out to be a plain file of our own. It is opened
    // for reading too, so the part an earlier attempt left can be hashed.
    const int flags = O_RDWR | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    struct stat info;
    const bool exists = ::lstat(native.constData(), &info) == 0;
    int fd = exists ? ::open(native.constData(), flags)
                    : ::open(native.constData(), flags | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    QString problem;
    if (fd < 0) {
        problem = errnoText(errno);
    } else if (::fstat(fd, &info) != 0) {
        problem = errnoText(errno);
    } else if (!S_ISREG(info.st_mode)) {
        problem = QStringLiteral("not a regular file");
    } else if (info.st_uid != ::geteuid()) {
        problem =
            QStringLiteral("owned by uid %1, not by uid %2").arg(info.st_uid).arg(::geteuid());
    } else if (info.st_nlink != 1) {
        // A second name for one of our own files, planted to have it appended to.
        problem = QStringLiteral("file has %1 links").arg(info.st_nlink);
    } else if (!hashExistingPrefix(fd, info.st_size)) {
        problem = errnoText(errno);
    }

    QFile *file = nullptr;
    if (problem.isEmpty()) {
        file = new QFile(temp_path, this);
        // Unbuffered, so that a write the disk refuses fails at once, in
        // readyRead, rather than at some later flush. From here on the file
        // object owns the descriptor and closes it.
        if (!file->open(fd, QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered,
                        QFileDevice::AutoCloseHandle)) {
            problem = file->errorString();
            delete file;
            file = nullptr;
        }
    }

    if (!file) {
        if (fd >= 0)
            ::close(fd);
        QString reason;
        if (exists) {
            // Whatever its size, an existing temporary file is the start of this
            // download: it is continued, never truncated.
            QLOG_ERROR(LOG_COMPONENT, "Fail to open temp file '%s' in append mode. (reason: %s)",
                       qUtf8Printable(temp_path), qUtf8Printable(problem));
            reason = QStringLiteral("fail to open temp file in append mode");
        } else {
            QLOG_ERROR(LOG_COMPONENT,
                       "Fail to open temp file '%s' in write only mode. (reason: %s)",
                       qUtf8Printable(temp_path), qUtf8Printable(problem));
            reason = QStringLiteral("fail to open temp file in write only mode");
        }
        // download() is called by the controller, which may end the event loop
        // in reaction: the failure must arrive once control is back in the loop.
        QMetaObject::invokeMethod(
            this, [this, reason]() { emit error(SysError, reason); }, Qt::QueuedConnection);
        return false;
    }

    download_file = file;
    file_size = info.st_size;
    return true;
}

bool UpdateDownloader::isResumeDownload() {
    return file_size != 0;
}

void UpdateDownloader::prepareResumeDownlaodRequest(QNetworkRequest &request) {
    QLOG_DEBUG(LOG_COMPONENT, "Resume download start from byte: %lld.",
               static_cast<long long>(file_size));
    request.setRawHeader("Range", "bytes=" + QByteArray::number(file_size) + "-");
}

void UpdateDownloader::examineAnswer() {
    if (body_action != BodyAction::Undecided)
        return;
    body_action = BodyAction::Write;

    const QVariant location = reply->attribute(QNetworkRequest::RedirectionTargetAttribute);
    if (location.isValid()) {
        // Servers send a short "moved" page with a redirect. It is not part of
        // the file: appended, it would sit in front of the real content and
        // fail the digest check. Whether the redirect is followed is decided
        // in downloadFinished.
        body_action = BodyAction::Discard;
        return;
    }

    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status != 0 && (status < 200 || status > 299)) {
        // An error page (a proxy's 407, a server's 503) is not the file either.
        // Some of these failures keep the temporary file for a resume, which
        // would then continue after the page.
        body_action = BodyAction::Discard;
        return;
    }
    if (status == 200 && file_size > 0) {
        // The server ignored "Range" and sends the whole file: it replaces what
        // was there rather than being appended to it.
        QLOG_INFO(LOG_COMPONENT,
                  "Server ignored the range request, download restarts from byte 0.");
        if (!download_file->resize(0)) {
            QLOG_ERROR(LOG_COMPONENT, "Fail to write temp file '%s'. (reason: %s)",
                       qUtf8Printable(save_path + TEMP_EXT),
                       qUtf8Printable(download_file->errorString()));
            failTransfer(SysError, QStringLiteral("fail to write temp file"));
            return;
        }
        file_size = 0;
        hashes.reset(!expect_sha256.isEmpty());
    } else if (status == 206) {
        // Partial content that does not continue exactly where the file ends
        // would leave a gap or an overlap in it.
        const QByteArray range = reply->rawHeader("Content-Range");
        if (contentRangeField(range, 1) != file_size) {
            QLOG_ERROR(LOG_COMPONENT,
                       "Fail to download file. (reason: content range '%s' does not start at "
                       "byte %lld)",
                       range.constData(), static_cast<long long>(file_size));
            failTransfer(HttpError,
                         QStringLiteral("Download failed since unexpected content range"));
            return;
        }
    }
    // A file announced larger than the one expected is not that file; not
    // a byte of it is written. One that does not announce its length is
    // held to the size as it arrives.
    const qint64 total = announcedTotal();
    if (expect_size >= 0 && total > expect_size) {
        QLOG_ERROR(LOG_COMPONENT,
                   "Fail to download file. (reason: announced size %lld exceeds the expected "
                   "%lld bytes)",
                   static_cast<long long>(total), static_cast<long long>(expect_size));
        failTransfer(SysError, QStringLiteral("File larger than expected"));
    }
}

void UpdateDownloader::failTransfer(UpdateDownloaderError code, const QString &reason) {
    pending_error = code;
    pending_reason = reason;
    body_action = BodyAction::Discard;
    // Called from inside the reply's own signals: aborting there would finish
    // the reply while the network library is still delivering to it.
    QNetworkReply *current = reply;
    QMetaObject::invokeMethod(
        current, [current]() { current->abort(); }, Qt::QueuedConnection);
}

void UpdateDownloader::readyRead() {
    // Each chunk rearms the timer, so the time-out limits a stall rather than
    // the whole transfer.
    timer->start(getTimeout());
    if (body_action == BodyAction::Undecided)
        examineAnswer();
    // Not readAll(), which copies into a new array: asked for exactly what
    // is there, the reply hands over the array it received, when that is all
    // it holds, and the bytes are neither copied nor freshly paged in.
    const QByteArray data = reply->read(reply->bytesAvailable());
    if (body_action != BodyAction::Write)
        return;

    const char *next = data.constData();
    qint64 left = data.size();
    // Never past the expected size: what the server sends beyond it is not
    // written, and the transfer ends with the file removed.
    const bool too_long = expect_size >= 0 && left > expect_size - hashes.size();
    if (too_long)
        left = expect_size - hashes.size();
    while (left > 0) {
        // A short write is retried; the disk reports its reason on the retry.
        const qint64 written = download_file->write(next, left);
        if (written <= 0) {
            // A full disk, say: going on would only produce a file the digest
            // check throws away, after the whole transfer.
            QLOG_ERROR(LOG_COMPONENT, "Fail to write temp file '%s'. (reason: %s)",
                       qUtf8Printable(save_path + TEMP_EXT),
                       qUtf8Printable(download_file->errorString()));
            failTransfer(SysError, QStringLiteral("fail to write temp file"));
            return;
        }
        // Only what the disk took is hashed, so the digest always describes
        // the file as it lies there.
        hashWritten(written == data.size() ? data : QByteArray(next, static_cast<int>(written)));
        next += written;
        left -= written;
    }
    if (too_long) {
        QLOG_ERROR(LOG_COMPONENT,
                   "Fail to download file. (reason: body goes on past the expected %lld bytes)",
                   static_cast<long long>(expect_size));
        failTransfer(SysError, QStringLiteral("File larger than expected"));
    }
}

void UpdateDownloader::adjustDownloadProgress(qint64 bytes_received, qint64 bytes_total) {
    // Progress covers the whole file, the part resumed from disk included.
    // Bytes thrown away are no progress.
    if (reply && reply->error() == QNetworkReply::NoError && body_action != BodyAction::Discard)
        emit downloadProgress(file_size + bytes_received, file_size + bytes_total);
}

void UpdateDownloader::downloadFinished() {
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    disconnect(manager, &QNetworkAccessManager::networkAccessibleChanged, this,
               &UpdateDownloader::networkAccessibleChanged);
    QT_WARNING_POP
    timer->stop();
    download_file->flush();
    download_file->close();

    const QString temp_path = save_path + TEMP_EXT;

    // Found while the reply arrived and already logged; the abort that ended
    // the transfer is not the cause. What is on disk cannot be trusted.
    if (pending_error != NoError) {
        const UpdateDownloaderError code = pending_error;
        const QString reason = pending_reason;
        QFile::remove(temp_path);
        reset();
        emit error(code, reason);
        return;
    }

    if (reply->error() != QNetworkReply::NoError) {
        const int code = reply->error();
        const QString reason = reply->errorString();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const int category = code / 100;
        if (category <= 1) {
            reportInterrupted(code, reason);
        } else if (category == 2 || (status != 0 && (status < 200 || status > 299))) {
            // The server refused (a range it cannot satisfy, say): the partial
            // file is not trusted and the next attempt starts from byte 0.
            QFile::remove(temp_path);
            QLOG_ERROR(LOG_COMPONENT,
                       "Fail to download file. (code: %d, reason: HTTP error. %s, HTTP status "
                       "code: %d)",
                       code, qUtf8Printable(reason), status);
            reset();
            emit error(HttpError, QStringLiteral("Download failed since http error"));
        } else {
            QFile::remove(temp_path);
            QLOG_ERROR(LOG_COMPONENT,
                       "Fail to download file. (code: %d, reason: unkonwn error. %s)", code,
                       qUtf8Printable(reason));
            reset();
            emit error(UnknownError, QStringLiteral("Download failed since unknown error"));
        }
        return;
    }

    const QUrl request_url(download_url, QUrl::TolerantMode);
    const QUrl target =
        request_url.resolved(reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl());
    if (!target.isEmpty() && target != request_url) {
        QLOG_INFO(LOG_COMPONENT, "Redirect to %s", qUtf8Printable(target.toString()));
        if (!isAllowedRedirect(request_url, target)) {
            QLOG_ERROR(LOG_COMPONENT, "Unsafe redirection refused. (%s)",
                       qUtf8Printable(target.toString()));
            reset();
            emit error(AppError, QStringLiteral("Unsafe redirection refused."));
            return;
        }
        if (max_redirect > REDIRECT_LIMIT) {
            QLOG_ERROR(LOG_COMPONENT, "Max redirection hit. (%s)",
                       qUtf8Printable(target.toString()));
            reset();
            emit error(AppError, QStringLiteral("Max redirection hit."));
            return;
        }
        ++max_redirect;
        download_url = target.toString();
        // Only the finished reply and the closed file object are released; the
        // temporary file stays as it is and is reopened for appending.
        reset();
        download();
        return;
    }

    // A connection closed early can still end as a reply without an error: Qt
    // quietly sends a request again when the connection drops right after a
    // short answer arrived whole, and may then end that reply early. A file
    // shorter than the answer announced is an interrupted transfer, kept for
    // the next attempt to resume, not a finished one to throw away. This only
    // concerns a body that was being written: the length of a page that was
    // thrown away (a 300, a redirect that leads nowhere) says nothing about
    // the file, which then goes to the digest check as it is.
    const qint64 announced = body_action == BodyAction::Write ? announcedSize() : -1;
    const qint64 on_disk = QFileInfo(temp_path).size();
    if (announced >= 0 && on_disk < announced) {
        reportInterrupted(
            QNetworkReply::RemoteHostClosedError,
            QStringLiteral("transfer ended after %1 of %2 bytes").arg(on_disk).arg(announced));
        return;
    }

    // Beyond the checks made when the answer began, the digest over the file
    // as it lies on disk is the guard.
    const QString mismatch = findMismatch();
    if (!mismatch.isEmpty()) {
        QFile::remove(temp_path);
        reset();
        QLOG_ERROR(LOG_COMPONENT, "Fail to download file. (reason: %s not matched)",
                   qUtf8Printable(mismatch));
        emit error(SysError, QStringLiteral("File %1 not matched").arg(mismatch));
        return;
    }

    const bool moved = moveToSavePath();
    reset();
    if (!moved) {
        emit error(SysError, QStringLiteral("Fail to rename temp file"));
        return;
    }
    emit finished();
}

bool UpdateDownloader::moveToSavePath() {
    const QString temp_path = save_path + TEMP_EXT;
    QFile::remove(save_path);
    if (!QFile::rename(temp_path, save_path)) {
        QFile::remove(temp_path);
        QLOG_ERROR(LOG_COMPONENT, "Fail to rename temp file to path '%s'.",
                   qUtf8Printable(save_path));
        return false;
    }
    return true;
}

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
void UpdateDownloader::networkAccessibleChanged(
    QNetworkAccessManager::NetworkAccessibility accessible) {
    // Not accessible and unknown both end the transfer; regaining the network
    // needs nothing.
    if (accessible == QNetworkAccessManager::Accessible)
        return;
    QLOG_ERROR(LOG_COMPONENT, "Fail to download file '%s'. (reason: network disconnected)",
               qUtf8Printable(download_url));
    abort();
}
QT_WARNING_POP

void UpdateDownloader::queryTimeout() {
    QLOG_ERROR(LOG_COMPONENT, "Fail to download file '%s'. (reason: timeout)",
               qUtf8Printable(download_url));
    abort();
}

void UpdateDownloader::abort() {
    if (!reply)
        return;
    QLOG_DEBUG(LOG_COMPONENT, "Abort request.");
    reply->abort();
}

void UpdateDownloader::reset() {
    if (reply) {
        // downloadFinished runs inside the reply's own finished() signal.
        reply->deleteLater();
        reply = nullptr;
    }
    if (download_file) {
        delete download_file;
        download_file = nullptr;
    }
    pending_error = NoError;
    pending_reason.clear();
}

bool UpdateDownloader::isChecksumMatched(const QString &file_path, const QString &checksum,
                                         qint64 size, const QByteArray &sha256) {
    if (checksum.isEmpty() && size < 0 && sha256.isEmpty())
        return true;

    auto file = std::make_unique<QFile>(file_path);
    if (!file->open(QIODevice::ReadOnly)) {
        QLOG_ERROR(LOG_COMPONENT, "Failed to open file for '%s'.", qUtf8Printable(file_path));
        return false;
    }

    // The size is known without reading: a file of another size is not read.
    if (size >= 0 && file->size() != size)
        return false;
    Md5 hash;
    QCryptographicHash sha256_hash(QCryptographicHash::Sha256);
    QByteArray chunk(static_cast<int>(HASH_CHUNK_SIZE), Qt::Uninitialized);
    qint64 total = 0;
    for (;;) {
        const qint64 read = file->read(chunk.data(), HASH_CHUNK_SIZE);
        if (read == 0)
            break;
        // A file that cannot be read to its end cannot be vouched for.
        if (read < 0)
            return false;
        if (!checksum.isEmpty())
            hash.addData(chunk.constData(), static_cast<int>(read));
        if (!sha256.isEmpty())
            sha256_hash.addData(chunk.constData(), static_cast<int>(read));
        total += read;
    }
    file->close();

    // Read to the end: a file that grew after the size was looked at is not it.
    return (size < 0 || total == size) &&
           (checksum.isEmpty() ||
            QString::fromLatin1(hash.result().toHex()).compare(checksum, Qt::CaseInsensitive) ==
                0) &&
           (sha256.isEmpty() || sha256_hash.result().toHex() == sha256.toLower());
}

bool UpdateDownloader::hashExistingPrefix(int fd, qint64 size) {
    // Once per attempt, at the start: what an earlier attempt left is hashed
    // before new bytes are appended to it. Read through the descriptor that
    // was checked, so the bytes hashed are those of that very file.
    hashes.reset(!expect_sha256.isEmpty());
    qint64 offset = 0;
    while (offset < size) {
        // A buffer of its own each time: the digest's thread still reads the last one.
        QByteArray chunk(static_cast<int>(qMin(HASH_CHUNK_SIZE, size - offset)), Qt::Uninitialized);
        const ssize_t read = ::pread(fd, chunk.data(), static_cast<size_t>(chunk.size()),
                                     static_cast<off_t>(offset));
        if (read < 0 && errno == EINTR)
            continue;
        if (read <= 0) {
            if (read == 0)
                errno = EIO; // the file shrank under us
            return false;
        }
        chunk.truncate(static_cast<int>(read));
        hashWritten(chunk);
        offset += read;
    }
    return true;
}

void UpdateDownloader::hashWritten(const QByteArray &chunk) {
    // SHA-256 costs more than MD5 and is only worked out when it is checked
    // (see the resets).
    hashes.add(chunk);
}

bool UpdateDownloader::hasExpectedDigest() const {
    return !expect_checksum.isEmpty() || !expect_sha256.isEmpty();
}

QString UpdateDownloader::findMismatch() {
    if (expect_size >= 0 && hashes.size() != expect_size)
        return QStringLiteral("size");
    if (!expect_checksum.isEmpty() &&
        QString::fromLatin1(hashes.md5Hex()).compare(expect_checksum, Qt::CaseInsensitive) != 0)
        return QStringLiteral("checksum");
    if (!expect_sha256.isEmpty() && hashes.sha256Hex() != expect_sha256.toLower())
        return QStringLiteral("sha256");
    return QString();
}

void UpdateDownloader::reportInterrupted(int code, const QString &reason) {
    // Interrupted, stalled or aborted: the bytes on disk are good and the next
    // attempt resumes from them. Through a proxy the failure is put down to the
    // proxy, which lets the controller fall back to a direct connection.
    if (code / 100 == 0 && manager->proxy().type() == QNetworkProxy::NoProxy) {
        QLOG_ERROR(LOG_COMPONENT, "Fail to download file. (code: %d, reason: network error. %s)",
                   code, qUtf8Printable(reason));
        reset();
        emit error(NetworkError, QStringLiteral("Download failed since network error"));
    } else {
        QLOG_ERROR(LOG_COMPONENT, "Fail to download file. (code: %d, reason: proxy error. %s)",
                   code, qUtf8Printable(reason));
        reset();
        emit error(ProxyError, QStringLiteral("Download failed since proxy error"));
    }
}

qint64 UpdateDownloader::announcedSize() const {
    // A compressed body is announced by its compressed length, which says
    // nothing about the file's.
    const QByteArray encoding = reply->rawHeader("Content-Encoding").toLower();
    if (!encoding.isEmpty() && encoding != "identity")
        return -1;
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    if (!length.isValid())
        return -1;
    // After a 200 to a ranged request file_size is back at 0; after a 206 it
    // is where the range started.
    return file_size + length.toLongLong();
}

qint64 UpdateDownloader::announcedTotal() const {
    const QByteArray encoding = reply->rawHeader("Content-Encoding").toLower();
    if (!encoding.isEmpty() && encoding != "identity")
        return -1;
    // A 206 also names the whole file's length, which may say more than the
    // part of it this answer carries.
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const qint64 range_total =
        status == 206 ? contentRangeField(reply->rawHeader("Content-Range"), 3) : -1;
    return qMax(announcedSize(), range_total);
}
