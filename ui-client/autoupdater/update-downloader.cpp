#include "update-downloader.h"

#include "log/log.h"

#include <QCryptographicHash>
#include <QFile>
#include <QMetaObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>

#include <memory>

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
// with data the disk has not taken yet.
const qint64 READ_BUFFER_SIZE = 1024 * 1024;
} // namespace

const QString UpdateDownloader::TEMP_EXT = QStringLiteral(".download");

UpdateDownloader::UpdateDownloader(QObject *parent)
    : QObject(parent), manager(new QNetworkAccessManager(this)), reply(nullptr),
      timer(new QTimer(this)), download_file(nullptr), file_size(0), timeout(DEFAULT_TIMEOUT),
      max_redirect(0) {
    // Registered by name so the code can travel through queued and
    // signature-named connections, not only through direct ones.
    qRegisterMetaType<UpdateDownloader::UpdateDownloaderError>();
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, &UpdateDownloader::queryTimeout);
    setTimeout(DEFAULT_TIMEOUT);
}

void UpdateDownloader::setProxy(const QNetworkProxy &proxy) {
    manager->setProxy(proxy);
}

void UpdateDownloader::download() {
    if (!openDownloadFile())
        return;

    QNetworkRequest request(QUrl(download_url, QUrl::TolerantMode));
    if (isResumeDownload())
        prepareResumeDownlaodRequest(request);

    timer->start(getTimeout());
    reply = manager->get(request);
    reply->setReadBufferSize(READ_BUFFER_SIZE);

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
    auto *file = new QFile(save_path + TEMP_EXT, this);
    QString reason;
    if (!file->exists()) {
        if (!file->open(QIODevice::WriteOnly)) {
            QLOG_ERROR(LOG_COMPONENT,
                       "Fail to open temp file '%s' in write only mode. (reason: %s)",
                       qUtf8Printable(file->fileName()), qUtf8Printable(file->errorString()));
            reason = QStringLiteral("fail to open temp file in write only mode");
        }
    } else if (!file->open(QIODevice::Append)) {
        // Whatever its size, an existing temporary file is the start of this
        // download: it is continued, never truncated.
        QLOG_ERROR(LOG_COMPONENT, "Fail to open temp file '%s' in append mode. (reason: %s)",
                   qUtf8Printable(file->fileName()), qUtf8Printable(file->errorString()));
        reason = QStringLiteral("fail to open temp file in append mode");
    }

    if (!reason.isEmpty()) {
        delete file;
        // download() is called by the controller, which may end the event loop
        // in reaction: the failure must arrive once control is back in the loop.
        QMetaObject::invokeMethod(
            this, [this, reason]() { emit error(SysError, reason); }, Qt::QueuedConnection);
        return false;
    }

    download_file = file;
    file_size = download_file->size();
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

void UpdateDownloader::readyRead() {
    // Each chunk rearms the timer, so the time-out limits a stall rather than
    // the whole transfer.
    timer->start(getTimeout());
    // Write failures are not chased here: the digest check over the file as
    // it lies on disk catches anything that did not reach it.
    download_file->write(reply->readAll());
}

void UpdateDownloader::adjustDownloadProgress(qint64 bytes_received, qint64 bytes_total) {
    // Progress covers the whole file, the part resumed from disk included.
    if (reply && reply->error() == QNetworkReply::NoError)
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

    if (reply->error() != QNetworkReply::NoError) {
        const int code = reply->error();
        const QString reason = reply->errorString();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const int category = code / 100;
        if (category == 0 && manager->proxy().type() == QNetworkProxy::NoProxy) {
            // Interrupted, stalled or aborted: the bytes on disk are good and
            // the next attempt resumes from them.
            QLOG_ERROR(LOG_COMPONENT,
                       "Fail to download file. (code: %d, reason: network error. %s)", code,
                       qUtf8Printable(reason));
            reset();
            emit error(NetworkError, QStringLiteral("Download failed since network error"));
        } else if (category <= 1) {
            QLOG_ERROR(LOG_COMPONENT, "Fail to download file. (code: %d, reason: proxy error. %s)",
                       code, qUtf8Printable(reason));
            reset();
            emit error(ProxyError, QStringLiteral("Download failed since proxy error"));
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

    // The HTTP status of a reply without a network error is not examined: a
    // server that ignored "Range" and sent the whole file again has had it
    // appended, and the digest check below is what rejects that.
    if (!isChecksumMatched(temp_path, expect_checksum)) {
        QFile::remove(temp_path);
        reset();
        QLOG_ERROR(LOG_COMPONENT, "Fail to download file. (reason: checksum not matched)");
        emit error(SysError, QStringLiteral("File checksum not matched"));
        return;
    }

    QFile::remove(save_path);
    if (!QFile::rename(temp_path, save_path)) {
        QFile::remove(temp_path);
        reset();
        QLOG_ERROR(LOG_COMPONENT, "Fail to rename temp file to path '%s'.",
                   qUtf8Printable(save_path));
        emit error(SysError, QStringLiteral("Fail to rename temp file"));
        return;
    }
    reset();
    emit finished();
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
}

bool UpdateDownloader::isChecksumMatched(const QString &file_path, const QString &checksum) {
    if (checksum.isEmpty())
        return true;

    auto file = std::make_unique<QFile>(file_path);
    if (!file->open(QIODevice::ReadOnly)) {
        QLOG_ERROR(LOG_COMPONENT, "Failed to open file for '%s'.", qUtf8Printable(file_path));
        return false;
    }

    QCryptographicHash hash(QCryptographicHash::Md5);
    QByteArray chunk(static_cast<int>(HASH_CHUNK_SIZE), Qt::Uninitialized);
    for (;;) {
        const qint64 read = file->read(chunk.data(), HASH_CHUNK_SIZE);
        if (read == 0)
            break;
        // A file that cannot be read to its end cannot be vouched for.
        if (read < 0)
            return false;
        hash.addData(chunk.constData(), static_cast<int>(read));
    }
    file->close();

    const QString digest = QString::fromLatin1(hash.result().toHex());
    return digest.compare(checksum, Qt::CaseInsensitive) == 0;
}
