#include "update-downloader.h"

#include "fake-http-server.h"
#include "log-capture.h"
#include "loopback-daemon.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QUrlQuery>
#include <QtTest>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray randomBytes(int size, quint32 seed) {
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(generator.generate() & 0xff);
    return bytes;
}

QString md5(const QByteArray &bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

QByteArray readFile(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return file.readAll();
}

bool writeFile(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}

QString errnoText(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

// What lstat() says about a path, as far as a planted object could be
// changed by being written through, truncated, replaced or removed.
struct PathState {
    bool exists = false;
    mode_t mode = 0;
    uid_t uid = 0;
    ino_t inode = 0;
    nlink_t links = 0;
    off_t size = 0;
    QByteArray linkTarget;

    static PathState of(const QString &path) {
        PathState state;
        struct stat info;
        const QByteArray native = QFile::encodeName(path);
        if (::lstat(native.constData(), &info) != 0)
            return state;
        state.exists = true;
        state.mode = info.st_mode;
        state.uid = info.st_uid;
        state.inode = info.st_ino;
        state.links = info.st_nlink;
        state.size = info.st_size;
        if (S_ISLNK(info.st_mode)) {
            char target[4096];
            const ssize_t n = ::readlink(native.constData(), target, sizeof target);
            if (n > 0)
                state.linkTarget = QByteArray(target, static_cast<int>(n));
        }
        return state;
    }
    bool operator==(const PathState &o) const {
        return exists == o.exists && mode == o.mode && uid == o.uid && inode == o.inode &&
               links == o.links && size == o.size && linkTarget == o.linkTarget;
    }
};

// Makes the process's file writes fail with EFBIG past `bytes` (the signal
// that would otherwise kill the process is ignored) until destruction. This
// fails writes the way a full disk does, as root and as anyone else.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &previous);
        struct rlimit limit = previous;
        limit.rlim_cur = bytes;
        active = ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &previous);
        std::signal(SIGXFSZ, previousHandler);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;
    bool active = false;

private:
    struct rlimit previous;
    void (*previousHandler)(int);
};

class Umask {
public:
    explicit Umask(mode_t mask) : previous(::umask(mask)) {}
    ~Umask() { ::umask(previous); }
    Umask(const Umask &) = delete;
    Umask &operator=(const Umask &) = delete;

private:
    mode_t previous;
};

class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor = -1) : fd(descriptor) {}
    ~FileDescriptor() {
        if (fd >= 0)
            ::close(fd);
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int fd;
};

// The open flags of this process's descriptor for path, from /proc; -1 when
// none is open.
long openFlagsOf(const QString &path) {
    const QByteArray wanted = QFile::encodeName(path);
    const QStringList entries =
        QDir(QStringLiteral("/proc/self/fd"))
            .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        char target[4096];
        const QByteArray link = QFile::encodeName("/proc/self/fd/" + entry);
        const ssize_t n = ::readlink(link.constData(), target, sizeof target);
        if (n <= 0 || QByteArray(target, static_cast<int>(n)) != wanted)
            continue;
        QFile info(QStringLiteral("/proc/self/fdinfo/") + entry);
        if (!info.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : info.readAll().split('\n')) {
            if (line.startsWith("flags:"))
                return line.mid(6).trimmed().toLong(nullptr, 8);
        }
    }
    return -1;
}

UpdateDownloader::UpdateDownloaderError codeOf(const QSignalSpy &spy, int i = 0) {
    return spy.at(i).at(0).value<UpdateDownloader::UpdateDownloaderError>();
}

class QueuedErrorRecorder : public QObject {
    Q_OBJECT
public:
    QList<int> codes;
public slots:
    void record(UpdateDownloader::UpdateDownloaderError code, const QString &) { codes << code; }
};

} // namespace

class TestUpdateDownloader : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void resumeFromTemporaryFile_data();
    void resumeFromTemporaryFile();
    void interruptedTransferResumes_data();
    void interruptedTransferResumes();
    void failureKeepsOrRemovesTemporaryFile_data();
    void failureKeepsOrRemovesTemporaryFile();
    void networkLossAborts_data();
    void networkLossAborts();
    void digestDecidesTheRename_data();
    void digestDecidesTheRename();
    void isChecksumMatched_data();
    void isChecksumMatched();
    void abortWithNothingInFlightEmitsNothing();
    void redirectsCountedOverLifetime_data();
    void redirectsCountedOverLifetime();
    void resumeAnswerIsChecked_data();
    void resumeAnswerIsChecked();
    void completeTemporaryFileNeedsNoRequest_data();
    void completeTemporaryFileNeedsNoRequest();
    void writeFailureAbortsAndRemoves();
    void unusableTemporaryPathIsLeftAlone_data();
    void unusableTemporaryPathIsLeftAlone();
    void createdTemporaryFileIsPrivate();
    void onlyHttpUrlsAreFetched_data();
    void onlyHttpUrlsAreFetched();
    void unsafeRedirectsAreRefused_data();
    void unsafeRedirectsAreRefused();
    void isAllowedRedirect_data();
    void isAllowedRedirect();

private:
    QString path(const QString &name) const { return dir->filePath(name); }
    // A downloader of url into savePath, going direct.
    std::unique_ptr<UpdateDownloader> makeDownloader(const QString &url,
                                                     const QString &checksum) const;

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<FakeHttpServer> server;
    // Where the file goes, and the temporary file it is downloaded into.
    QString savePath;
    QString tempPath;
};

void TestUpdateDownloader::init() {
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    log = std::make_unique<LogCapture>();
    QVERIFY(log->isValid());
    server = std::make_unique<FakeHttpServer>();
    QVERIFY(server->listen());
    savePath = path("qlln_0_updater.bin");
    tempPath = savePath + ".download";
}

void TestUpdateDownloader::cleanup() {
    server.reset();
    log.reset();
    dir.reset();
}

std::unique_ptr<UpdateDownloader>
TestUpdateDownloader::makeDownloader(const QString &url, const QString &checksum) const {
    auto downloader = std::make_unique<UpdateDownloader>();
    downloader->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    downloader->setDownloadUrl(url);
    downloader->setExpectChecksum(checksum);
    downloader->setSavePath(savePath);
    return downloader;
}

void TestUpdateDownloader::resumeFromTemporaryFile_data() {
    QTest::addColumn<int>("existing"); // bytes already in the temporary file; -1: no file
    QTest::addColumn<bool>("lengthAnnounced");

    QTest::newRow("no temporary file") << -1 << true;
    QTest::newRow("1000 bytes are resumed") << 1000 << true;
    QTest::newRow("empty temporary file is appended to") << 0 << true;
    QTest::newRow("1000 bytes, no length") << 1000 << false;
}

void TestUpdateDownloader::resumeFromTemporaryFile() {
    QFETCH(int, existing);
    QFETCH(bool, lengthAnnounced);

    const QByteArray content = randomBytes(300 * 1024 + 17, 1);
    HttpResponse response = HttpResponse::file(content).honourRange();
    if (!lengthAnnounced)
        response.withoutContentLength();
    server->enqueue(response);

    if (existing >= 0)
        QVERIFY(writeFile(tempPath, content.left(existing)));

    auto downloader = makeDownloader(server->url("/files/updater.bin"), md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    QSignalSpy progress(downloader.get(), &UpdateDownloader::downloadProgress);
    downloader->download();
    if (!lengthAnnounced) {
        // The body ends with the connection, once the client is reading it.
        QTRY_VERIFY(QFileInfo(tempPath).size() > qMax(existing, 0));
        server->cutConnections();
    }
    QVERIFY(finished.wait());
    QCOMPARE(failed.count(), 0);

    QCOMPARE(server->requestCount(), 1);
    const HttpRequest request = server->requests().at(0);
    QCOMPARE(request.path, QStringLiteral("/files/updater.bin"));
    if (existing > 0)
        QCOMPARE(request.header("Range"), QByteArray("bytes=1000-"));
    else
        QVERIFY(!request.hasHeader("Range"));
    QCOMPARE(log->messages("DEBUG").contains("Resume download start from byte: 1000."),
             existing > 0);

    QCOMPARE(readFile(savePath), content);
    QVERIFY(!QFileInfo::exists(tempPath));

    // Progress covers the whole file: the resumed part plus what arrived. An
    // unannounced length shows as a total of the resumed part minus one until
    // the final report, where the network library counts what it received.
    const qint64 resumed = qMax(existing, 0);
    const qint64 total = lengthAnnounced ? content.size() : resumed - 1;
    QVERIFY(!progress.isEmpty());
    qint64 previous = resumed;
    for (int i = 0; i < progress.size() - 1; ++i) {
        const qint64 received = progress.at(i).at(0).toLongLong();
        QVERIFY2(received >= previous, qPrintable(QString::number(received)));
        QCOMPARE(progress.at(i).at(1).toLongLong(), total);
        previous = received;
    }
    QCOMPARE(progress.last().at(0).toLongLong(), qint64(content.size()));
    QCOMPARE(progress.last().at(1).toLongLong(), qint64(content.size()));
}

void TestUpdateDownloader::interruptedTransferResumes_data() {
    QTest::addColumn<bool>("stall"); // else the connection is cut
    QTest::addColumn<bool>("sameObject");

    QTest::newRow("cut, resumed by the same object") << false << true;
    QTest::newRow("cut, resumed by a new object") << false << false;
    QTest::newRow("stall, resumed by the same object") << true << true;
}

void TestUpdateDownloader::interruptedTransferResumes() {
    QFETCH(bool, stall);
    QFETCH(bool, sameObject);

    const QByteArray content = randomBytes(512 * 1024 + 3, 2);
    server->enqueue(HttpResponse::file(content).honourRange().stallAfter(100000));
    server->enqueue(HttpResponse::file(content).honourRange());

    const QString url = server->url("/pack.zip");
    auto downloader = makeDownloader(url, md5(content));
    if (stall)
        downloader->setTimeout(300);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    downloader->download();
    if (!stall) {
        QTRY_VERIFY(QFileInfo(tempPath).size() > 0);
        server->cutConnections();
    }
    QVERIFY(failed.wait());
    QCOMPARE(codeOf(failed), UpdateDownloader::NetworkError);
    QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Download failed since network error"));

    // What arrived is kept for the next attempt, and nothing is at the save path.
    const QByteArray partial = readFile(tempPath);
    QVERIFY(!partial.isEmpty() && partial.size() <= 100000 && content.startsWith(partial));
    QVERIFY(!QFileInfo::exists(savePath));
    const QStringList errors = log->messages("ERROR");
    if (stall) {
        QCOMPARE(errors.size(), 2);
        QCOMPARE(errors.at(0), "Fail to download file '" + url + "'. (reason: timeout)");
        QVERIFY2(errors.at(1).startsWith(
                     QStringLiteral("Fail to download file. (code: %1, reason: network error. ")
                         .arg(int(QNetworkReply::OperationCanceledError))),
                 qPrintable(errors.at(1)));
        QVERIFY(log->messages("DEBUG").contains("Abort request."));
    } else {
        QCOMPARE(errors.size(), 1);
        QVERIFY2(errors.at(0).startsWith(
                     QStringLiteral("Fail to download file. (code: %1, reason: network error. ")
                         .arg(int(QNetworkReply::RemoteHostClosedError))),
                 qPrintable(errors.at(0)));
    }

    if (!sameObject)
        downloader = makeDownloader(url, md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    downloader->download();
    QVERIFY(finished.wait());
    QCOMPARE(server->requestCount(), 2);
    QCOMPARE(server->requests().at(1).header("Range"),
             QByteArray("bytes=") + QByteArray::number(partial.size()) + "-");
    QCOMPARE(readFile(savePath), content);
    QVERIFY(!QFileInfo::exists(tempPath));
}

void TestUpdateDownloader::failureKeepsOrRemovesTemporaryFile_data() {
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("proxy"); // "none": NoProxy set; "unset": never set; "server"
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<bool>("kept");
    QTest::addColumn<QString>("logged");

    const int network = UpdateDownloader::NetworkError;
    const QString networkReason = "Download failed since network error";
    const QString httpReason = "Download failed since http error";
    QTest::newRow("refused keeps") << "refused"
                                   << "none" << network << networkReason << true
                                   << "Fail to download file. (code: 1, reason: network error. ";
    QTest::newRow("stall, proxy never set, keeps")
        << "stall"
        << "unset" << int(UpdateDownloader::ProxyError) << "Download failed since proxy error"
        << true << "Fail to download file. (code: 5, reason: proxy error. ";
    QTest::newRow("proxy demands credentials, keeps")
        << "407"
        << "server" << int(UpdateDownloader::ProxyError) << "Download failed since proxy error"
        << true << "Fail to download file. (code: 105, reason: proxy error. ";
    QTest::newRow("404 removes") << "404"
                                 << "none" << int(UpdateDownloader::HttpError) << httpReason
                                 << false
                                 << "Fail to download file. (code: 203, reason: HTTP error. ";
    QTest::newRow("500 removes") << "500"
                                 << "none" << int(UpdateDownloader::HttpError) << httpReason
                                 << false
                                 << "Fail to download file. (code: 401, reason: HTTP error. ";
    QTest::newRow("range past the end removes")
        << "416"
        << "none" << int(UpdateDownloader::HttpError) << httpReason << false
        << "Fail to download file. (code: 299, reason: HTTP error. ";
    QTest::newRow("corrupt compressed body removes")
        << "gzip"
        << "none" << int(UpdateDownloader::UnknownError) << "Download failed since unknown error"
        << false << "Fail to download file. (code: 399, reason: unkonwn error. ";
}

void TestUpdateDownloader::failureKeepsOrRemovesTemporaryFile() {
    QFETCH(QString, fault);
    QFETCH(QString, proxy);
    QFETCH(int, code);
    QFETCH(QString, reason);
    QFETCH(bool, kept);
    QFETCH(QString, logged);

    const QByteArray content = randomBytes(64 * 1024, 3);
    QString url = server->url("/updater.bin");
    int status = 0;
    if (fault == "refused") {
        const quint16 port = pickFreePort();
        QVERIFY(port != 0);
        url = QStringLiteral("http://127.0.0.1:%1/updater.bin").arg(port);
    } else if (fault == "gzip") {
        // A body the network library cannot decompress: a protocol failure
        // on a 200 answer.
        server->enqueue(HttpResponse::file("not compressed at all, though it says so")
                            .header("Content-Encoding", "gzip"));
    } else if (fault == "stall") {
        server->enqueue(HttpResponse::file(content).honourRange().stallAfter(2000));
    } else if (fault == "416") {
        // The temporary file already holds more than the server has.
        status = 416;
        server->enqueue(HttpResponse::file(content.left(500)).honourRange());
    } else {
        status = fault.toInt();
        server->enqueue(HttpResponse::withStatus(status, "<html>refused</html>"));
    }

    QVERIFY(writeFile(tempPath, content.left(1000)));
    auto downloader = std::make_unique<UpdateDownloader>();
    downloader->setDownloadUrl(url);
    downloader->setExpectChecksum(md5(content));
    downloader->setSavePath(savePath);
    if (proxy == "none")
        downloader->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    else if (proxy == "server")
        downloader->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server->port()));
    downloader->setTimeout(300);
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    QueuedErrorRecorder recorder;
    QVERIFY(connect(downloader.get(),
                    SIGNAL(error(UpdateDownloader::UpdateDownloaderError, QString)), &recorder,
                    SLOT(record(UpdateDownloader::UpdateDownloaderError, QString)),
                    Qt::QueuedConnection));

    downloader->download();
    QCOMPARE(failed.count(), 0);
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(finished.count(), 0);
    QCOMPARE(int(codeOf(failed)), code);
    QCOMPARE(failed.at(0).at(1).toString(), reason);
    QTRY_COMPARE(recorder.codes, QList<int>{code});

    QCOMPARE(QFileInfo::exists(tempPath), kept);
    if (kept && fault == "stall") {
        QCOMPARE(readFile(tempPath), content.left(3000));
    } else if (kept) {
        // A proxy's refusal page is not part of the file: what the next
        // attempt resumes is exactly what was there.
        QCOMPARE(readFile(tempPath), content.left(1000));
    }
    QVERIFY(!QFileInfo::exists(savePath));

    const QStringList errors = log->messages("ERROR");
    QVERIFY(!errors.isEmpty());
    QVERIFY2(errors.last().startsWith(logged), qPrintable(errors.last()));
    if (logged.contains("HTTP error")) {
        QVERIFY2(errors.last().endsWith(QStringLiteral(", HTTP status code: %1)").arg(status)),
                 qPrintable(errors.last()));
    }
}

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
void TestUpdateDownloader::networkLossAborts_data() {
    QTest::addColumn<QNetworkAccessManager::NetworkAccessibility>("accessibility");
    QTest::addColumn<bool>("aborts");

    QTest::newRow("not accessible") << QNetworkAccessManager::NotAccessible << true;
    QTest::newRow("accessible again is ignored") << QNetworkAccessManager::Accessible << false;
}

void TestUpdateDownloader::networkLossAborts() {
    QFETCH(QNetworkAccessManager::NetworkAccessibility, accessibility);
    QFETCH(bool, aborts);

    // Half the file, then the server waits for the test to decide.
    const QByteArray content = randomBytes(128 * 1024, 4);
    server->enqueue(HttpResponse::file(content).stallAfter(64 * 1024));
    const QString url = server->url("/updater.bin");
    auto downloader = makeDownloader(url, md5(content));
    downloader->setTimeout(aborts ? 60000 : 500);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    downloader->download();
    QTRY_VERIFY(QFileInfo(savePath + ".download").size() > 0);

    downloader->networkAccessibleChanged(accessibility);
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(codeOf(failed), UpdateDownloader::NetworkError);
    const QByteArray kept = readFile(savePath + ".download");
    QVERIFY(!kept.isEmpty() && content.startsWith(kept));
    const QStringList errors = log->messages("ERROR");
    const QString lost = "Fail to download file '" + url + "'. (reason: network disconnected)";
    const QString timeout = "Fail to download file '" + url + "'. (reason: timeout)";
    // Only a real loss aborts; otherwise the stall time-out ends it later.
    QCOMPARE(errors.first(), aborts ? lost : timeout);
    QVERIFY(!errors.contains(aborts ? timeout : lost));
}
QT_WARNING_POP

void TestUpdateDownloader::digestDecidesTheRename_data() {
    QTest::addColumn<QString>("checksum");      // "<md5>", "<MD5>" for the served content's digest
    QTest::addColumn<bool>("partialIsForeign"); // the resumed 1000 bytes are not the file's
    QTest::addColumn<bool>("accepted");

    QTest::newRow("lower-case digest") << "<md5>" << false << true;
    QTest::newRow("upper-case digest") << "<MD5>" << false << true;
    QTest::newRow("empty digest accepts anything") << "" << true << true;
    QTest::newRow("wrong digest") << "0123456789abcdef0123456789abcdef" << false << false;
    QTest::newRow("resumed from bytes of another file") << "<md5>" << true << false;
}

void TestUpdateDownloader::digestDecidesTheRename() {
    QFETCH(QString, checksum);
    QFETCH(bool, partialIsForeign);
    QFETCH(bool, accepted);

    const QByteArray content = randomBytes(200 * 1024, 5);
    if (checksum == "<md5>")
        checksum = md5(content);
    else if (checksum == "<MD5>")
        checksum = md5(content).toUpper();
    server->enqueue(HttpResponse::file(content).honourRange());

    // A previous, different file at the save path and a resumable start.
    const QByteArray previous = "an older updater";
    const QByteArray partial = partialIsForeign ? randomBytes(1000, 55) : content.left(1000);
    QVERIFY(writeFile(savePath, previous));
    QVERIFY(writeFile(tempPath, partial));

    auto downloader = makeDownloader(server->url("/updater.bin"), checksum);
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    downloader->download();
    QTRY_COMPARE(finished.count() + failed.count(), 1);
    QCOMPARE(server->requests().at(0).header("Range"), QByteArray("bytes=1000-"));

    if (accepted) {
        QCOMPARE(finished.count(), 1);
        QCOMPARE(readFile(savePath), partial + content.mid(1000));
    } else {
        QCOMPARE(failed.count(), 1);
        QCOMPARE(codeOf(failed), UpdateDownloader::SysError);
        QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("File checksum not matched"));
        QCOMPARE(readFile(savePath), previous);
        QCOMPARE(log->messages("ERROR"),
                 QStringList{"Fail to download file. (reason: checksum not matched)"});
    }
    // Either moved into place or discarded: never left behind to be resumed.
    QVERIFY(!QFileInfo::exists(tempPath));
}

void TestUpdateDownloader::isChecksumMatched_data() {
    QTest::addColumn<QByteArray>("content"); // null: no file at all
    QTest::addColumn<QString>("checksum");
    QTest::addColumn<bool>("matched");

    const QByteArray big = randomBytes(3 * 1024 * 1024 + 7, 6);
    QTest::newRow("empty checksum, no file") << QByteArray() << "" << true;
    QTest::newRow("no file") << QByteArray() << "d41d8cd98f00b204e9800998ecf8427e" << false;
    QTest::newRow("spans several chunks") << big << md5(big) << true;
    QTest::newRow("last byte differs")
        << QByteArray(big).append('x') << md5(QByteArray(big).append('y')) << false;
    QTest::newRow("digest of a prefix") << big << md5(big.left(1024 * 1024)) << false;
}

void TestUpdateDownloader::isChecksumMatched() {
    QFETCH(QByteArray, content);
    QFETCH(QString, checksum);
    QFETCH(bool, matched);

    const QString file = path("file.bin");
    if (!content.isNull())
        QVERIFY(writeFile(file, content));
    QCOMPARE(UpdateDownloader::isChecksumMatched(file, checksum), matched);
    const QStringList expectedLog = content.isNull() && !checksum.isEmpty()
                                        ? QStringList{"Failed to open file for '" + file + "'."}
                                        : QStringList();
    QCOMPARE(log->messages("ERROR"), expectedLog);
}

void TestUpdateDownloader::abortWithNothingInFlightEmitsNothing() {
    const QByteArray content = randomBytes(4096, 7);
    server->enqueue(HttpResponse::file(content));
    auto downloader = makeDownloader(server->url("/updater.bin"), md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);

    // Before any download and after one has finished: nothing to abort, so no
    // signal, queued or not, and the next download is unaffected.
    downloader->abort();
    downloader->download();
    QVERIFY(finished.wait());
    downloader->abort();
    server->enqueue(HttpResponse::file(content));
    QFile::remove(savePath);
    downloader->download();
    QVERIFY(finished.wait());

    QCOMPARE(finished.count(), 2);
    QCOMPARE(failed.count(), 0);
    QCOMPARE(readFile(savePath), content);
    QVERIFY(!log->messages("DEBUG").contains("Abort request."));
}

void TestUpdateDownloader::redirectsCountedOverLifetime_data() {
    QTest::addColumn<QList<int>>("chains"); // redirects before the file, one download each
    QTest::addColumn<bool>("absolute");
    QTest::addColumn<bool>("lastSucceeds");

    QTest::newRow("33 redirects are followed") << QList<int>{33} << true << true;
    QTest::newRow("the 34th redirect fails") << QList<int>{34} << false << false;
    QTest::newRow("two downloads share 33") << QList<int>{20, 13} << false << true;
    QTest::newRow("second download hits the 34th") << QList<int>{20, 14} << true << false;
}

void TestUpdateDownloader::redirectsCountedOverLifetime() {
    QFETCH(QList<int>, chains);
    QFETCH(bool, absolute);
    QFETCH(bool, lastSucceeds);

    const QByteArray content = randomBytes(32 * 1024, 8);
    FakeHttpServer &s = *server;
    // "/chain/<n>": a redirect to "/chain/<n-1>" while n > 0, then the file.
    server->setHandler([&s, &content, absolute](const HttpRequest &request) {
        const int left = request.path.section(QLatin1Char('/'), 2).toInt();
        if (left == 0)
            return HttpResponse::file(content);
        const QString next = QStringLiteral("/chain/%1").arg(left - 1);
        // Real servers send a small page with each redirect; none of it may
        // end up in the file.
        HttpResponse moved =
            HttpResponse::redirect(absolute ? s.url(next).toUtf8() : next.toUtf8(), 301);
        moved.body = "<html><body>Moved Permanently</body></html>";
        return moved;
    });

    UpdateDownloader downloader;
    downloader.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    downloader.setExpectChecksum(md5(content));
    QSignalSpy finished(&downloader, &UpdateDownloader::finished);
    QSignalSpy failed(&downloader, &UpdateDownloader::error);

    int followed = 0;
    for (int i = 0; i < chains.size(); ++i) {
        server->clearRequests();
        const QString file = path(QStringLiteral("download-%1.bin").arg(i));
        downloader.setDownloadUrl(server->url(QStringLiteral("/chain/%1").arg(chains.at(i))));
        downloader.setSavePath(file);
        downloader.download();
        QTRY_COMPARE(finished.count() + failed.count(), i + 1);
        if (i < chains.size() - 1 || lastSucceeds) {
            QCOMPARE(finished.count(), i + 1);
            QCOMPARE(server->requestCount(), chains.at(i) + 1);
            QCOMPARE(readFile(file), content);
            // The followed URL is kept, like the redirect count.
            QCOMPARE(downloader.getDownloadUrl(), server->url("/chain/0"));
            followed += chains.at(i);
        }
    }

    const QStringList redirects = log->messages("INFO");
    if (lastSucceeds) {
        QCOMPARE(failed.count(), 0);
        QCOMPARE(redirects.size(), followed);
        return;
    }
    QCOMPARE(followed + server->requestCount(), 34);
    QCOMPARE(codeOf(failed), UpdateDownloader::AppError);
    QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Max redirection hit."));
    const QString refused =
        server->url(QStringLiteral("/chain/%1").arg(chains.last() - server->requestCount()));
    QCOMPARE(redirects.size(), 34);
    QCOMPARE(redirects.last(), "Redirect to " + refused);
    QCOMPARE(log->messages("ERROR"), QStringList{"Max redirection hit. (" + refused + ")"});
}

void TestUpdateDownloader::resumeAnswerIsChecked_data() {
    QTest::addColumn<int>("existing"); // bytes already in the temporary file; -1: no file
    QTest::addColumn<int>("status");   // 200: whole file, Range ignored; 206: partial
    QTest::addColumn<QByteArray>("contentRange"); // of a 206; null: served as nginx would
    QTest::addColumn<bool>("accepted");

    const int size = 200 * 1024;
    const QByteArray all = "/" + QByteArray::number(size);
    const QByteArray last = QByteArray::number(size - 1);
    QTest::newRow("200 to a ranged request is written from byte 0")
        << 1000 << 200 << QByteArray() << true;
    QTest::newRow("206 from the resume offset") << 1000 << 206 << QByteArray() << true;
    QTest::newRow("206 from byte 0, nothing to resume")
        << -1 << 206 << QByteArray("bytes 0-" + last + all) << true;
    QTest::newRow("206 from byte 0 when resuming")
        << 1000 << 206 << QByteArray("bytes 0-" + last + all) << false;
    QTest::newRow("206 past the resume offset")
        << 1000 << 206 << QByteArray("bytes 2000-" + last + all) << false;
    QTest::newRow("206 without Content-Range") << 1000 << 206 << QByteArray("") << false;
}

void TestUpdateDownloader::resumeAnswerIsChecked() {
    QFETCH(int, existing);
    QFETCH(int, status);
    QFETCH(QByteArray, contentRange);
    QFETCH(bool, accepted);

    const QByteArray content = randomBytes(200 * 1024, 9);
    HttpResponse response = HttpResponse::file(content);
    if (status == 206 && contentRange.isNull()) {
        response.honourRange();
    } else if (status == 206) {
        const qint64 from =
            contentRange.startsWith("bytes ") ? contentRange.mid(6).toLongLong() : 0;
        response = HttpResponse::withStatus(206, content.mid(static_cast<int>(from)));
        if (!contentRange.isEmpty())
            response.header("Content-Range", contentRange);
    }
    // A refusal has to come from the headers: the rest of the body never
    // arrives, so a check made only at its end would wait for the time-out.
    if (!accepted)
        response.stallAfter(4096);
    server->enqueue(response);

    if (existing >= 0)
        QVERIFY(writeFile(tempPath, content.left(existing)));
    auto downloader = makeDownloader(server->url("/updater.bin"), md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    QSignalSpy progress(downloader.get(), &UpdateDownloader::downloadProgress);
    downloader->download();
    QTRY_COMPARE(finished.count() + failed.count(), 1);
    QCOMPARE(server->requestCount(), 1);

    const QString restart = "Server ignored the range request, download restarts from byte 0.";
    QCOMPARE(log->messages("INFO").contains(restart), status == 200);
    if (accepted) {
        QCOMPARE(finished.count(), 1);
        QCOMPARE(readFile(savePath), content);
        QVERIFY(!QFileInfo::exists(tempPath));
        QVERIFY(log->messages("ERROR").isEmpty());
        // Progress never counts the discarded part twice.
        QVERIFY(!progress.isEmpty());
        for (const QList<QVariant> &report : qAsConst(progress)) {
            QVERIFY(report.at(0).toLongLong() <= content.size());
            QCOMPARE(report.at(1).toLongLong(), qint64(content.size()));
        }
        QCOMPARE(progress.last().at(0).toLongLong(), qint64(content.size()));
        return;
    }

    QCOMPARE(codeOf(failed), UpdateDownloader::HttpError);
    QCOMPARE(failed.at(0).at(1).toString(),
             QStringLiteral("Download failed since unexpected content range"));
    QCOMPARE(log->messages("ERROR"),
             QStringList{QStringLiteral("Fail to download file. (reason: content range '%1' does "
                                        "not start at byte %2)")
                             .arg(QString::fromLatin1(contentRange))
                             .arg(qMax(existing, 0))});
    QVERIFY(!QFileInfo::exists(tempPath));
    QVERIFY(!QFileInfo::exists(savePath));
}

void TestUpdateDownloader::completeTemporaryFileNeedsNoRequest_data() {
    QTest::addColumn<int>("existing");     // bytes of the file already in the temporary file
    QTest::addColumn<QString>("checksum"); // "<md5>", "<MD5>" for the file's digest
    QTest::addColumn<int>("requests");
    QTest::addColumn<bool>("accepted");

    const int size = 96 * 1024;
    QTest::newRow("whole file, digest matches") << size << "<md5>" << 0 << true;
    QTest::newRow("first half is resumed") << size / 2 << "<md5>" << 1 << true;
    // Not the announced file after all: the server is asked for what lies
    // past its end, refuses, and the next attempt starts again.
    QTest::newRow("whole file, digest differs")
        << size << "0123456789abcdef0123456789abcdef" << 1 << false;
}

void TestUpdateDownloader::completeTemporaryFileNeedsNoRequest() {
    QFETCH(int, existing);
    QFETCH(QString, checksum);
    QFETCH(int, requests);
    QFETCH(bool, accepted);

    const QByteArray content = randomBytes(96 * 1024, 10);
    if (checksum == "<md5>")
        checksum = md5(content);
    else if (checksum == "<MD5>")
        checksum = md5(content).toUpper();
    server->setHandler(
        [&content](const HttpRequest &) { return HttpResponse::file(content).honourRange(); });

    QVERIFY(writeFile(savePath, "an older updater"));
    QVERIFY(writeFile(tempPath, content.left(existing)));
    auto downloader = makeDownloader(server->url("/updater.bin"), checksum);
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    QSignalSpy progress(downloader.get(), &UpdateDownloader::downloadProgress);
    downloader->download();
    // Delivered from the event loop, after download() has returned.
    QCOMPARE(finished.count() + failed.count(), 0);
    QTRY_COMPARE(finished.count() + failed.count(), 1);
    QCOMPARE(server->requestCount(), requests);
    QVERIFY(!QFileInfo::exists(tempPath));

    const QString complete = "Temp file '" + tempPath + "' already complete, no download needed.";
    QCOMPARE(log->messages("INFO").contains(complete), requests == 0);
    if (!accepted) {
        QCOMPARE(codeOf(failed), UpdateDownloader::HttpError);
        QCOMPARE(readFile(savePath), QByteArray("an older updater"));
        return;
    }
    QCOMPARE(finished.count(), 1);
    QCOMPARE(readFile(savePath), content);
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().at(0).toLongLong(), qint64(content.size()));
    QCOMPARE(progress.last().at(1).toLongLong(), qint64(content.size()));
}

void TestUpdateDownloader::writeFailureAbortsAndRemoves() {
    // The server sends well past the point where the file can grow no more,
    // then holds the connection: only an abort at the failed write ends the
    // transfer before the time-out.
    const QByteArray content = randomBytes(1024 * 1024, 11);
    server->enqueue(HttpResponse::file(content).honourRange().stallAfter(600 * 1024));
    QVERIFY(writeFile(tempPath, content.left(1000)));
    auto downloader = makeDownloader(server->url("/updater.bin"), md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    {
        FileSizeLimit limit(256 * 1024);
        QVERIFY(limit.active);
        downloader->download();
        QTRY_COMPARE(failed.count(), 1);
    }

    QCOMPARE(finished.count(), 0);
    QCOMPARE(codeOf(failed), UpdateDownloader::SysError);
    QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("fail to write temp file"));
    QCOMPARE(log->messages("ERROR"), QStringList{"Fail to write temp file '" + tempPath +
                                                 "'. (reason: " + errnoText(EFBIG) + ")"});
    QVERIFY(!QFileInfo::exists(tempPath));
    QVERIFY(!QFileInfo::exists(savePath));
    QCOMPARE(server->requestCount(), 1);
}

// Whatever sits at the temporary path, or keeps it from being made, fails
// the download before any request, and is left as it was.
void TestUpdateDownloader::unusableTemporaryPathIsLeftAlone_data() {
    QTest::addColumn<QString>("planted");
    QTest::addColumn<QString>("mode");   // the temporary file was to be opened in
    QTest::addColumn<QString>("detail"); // the reason the log line gives

    // Permission bits do not stop root, so the unusable places are structural.
    QTest::newRow("parent is a regular file") << "file-parent"
                                              << "write only" << errnoText(ENOTDIR);
    QTest::newRow("a directory") << "directory"
                                 << "append" << errnoText(EISDIR);
    QTest::newRow("symbolic link to a file") << "symlink"
                                             << "append" << errnoText(ELOOP);
    QTest::newRow("FIFO without a reader") << "fifo"
                                           << "append" << errnoText(ENXIO);
    QTest::newRow("FIFO with a reader") << "fifo-read"
                                        << "append"
                                        << "not a regular file";
    QTest::newRow("second link to a file") << "hardlink"
                                           << "append"
                                           << "file has 2 links";
    QTest::newRow("file of another user")
        << "foreign"
        << "append" << QStringLiteral("owned by uid 4242, not by uid %1").arg(::geteuid());
}

void TestUpdateDownloader::unusableTemporaryPathIsLeftAlone() {
    QFETCH(QString, planted);
    QFETCH(QString, mode);
    QFETCH(QString, detail);

    if (planted == "file-parent") {
        QVERIFY(writeFile(path("plain"), "not a folder"));
        savePath = path("plain/qlln_0_updater.bin");
        tempPath = savePath + ".download";
    }
    const QByteArray tempNative = QFile::encodeName(tempPath);
    // A file of the user's that a planted link points at.
    const QString victim = path("victim.txt");
    const QByteArray precious = "the user's own data";
    QVERIFY(writeFile(victim, precious));
    FileDescriptor reader;

    if (planted == "directory") {
        QVERIFY(QDir().mkdir(tempPath));
    } else if (planted == "symlink") {
        QVERIFY(QFile::link(victim, tempPath));
    } else if (planted == "fifo" || planted == "fifo-read") {
        QCOMPARE(::mkfifo(tempNative.constData(), 0666), 0);
        if (planted == "fifo-read") {
            reader.fd = ::open(tempNative.constData(), O_RDONLY | O_NONBLOCK);
            QVERIFY(reader.fd >= 0);
        }
    } else if (planted == "hardlink") {
        QCOMPARE(::link(QFile::encodeName(victim).constData(), tempNative.constData()), 0);
    } else if (planted == "foreign") {
        if (::geteuid() != 0)
            QSKIP("giving a file to another user needs root");
        QVERIFY(writeFile(tempPath, "planted by uid 4242"));
        QCOMPARE(::chown(tempNative.constData(), 4242, 4242), 0);
    }
    const PathState before = PathState::of(tempPath);

    const QByteArray content = randomBytes(16 * 1024, 12);
    server->setHandler([&content](const HttpRequest &) { return HttpResponse::file(content); });
    auto downloader = makeDownloader(server->url("/updater.bin"), md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    downloader->download();
    // Delivered from the event loop, after download() has returned.
    QCOMPARE(failed.count(), 0);
    QVERIFY(failed.wait());
    QCOMPARE(finished.count(), 0);
    QCOMPARE(codeOf(failed), UpdateDownloader::SysError);
    QCOMPARE(failed.at(0).at(1).toString(), "fail to open temp file in " + mode + " mode");
    QCOMPARE(log->messages("ERROR"), QStringList{"Fail to open temp file '" + tempPath + "' in " +
                                                 mode + " mode. (reason: " + detail + ")"});
    QCOMPARE(server->requestCount(), 0);

    // Neither written through, truncated, replaced nor removed.
    QVERIFY(PathState::of(tempPath) == before);
    QCOMPARE(readFile(victim), precious);
    if (planted == "foreign")
        QCOMPARE(readFile(tempPath), QByteArray("planted by uid 4242"));
    if (reader.fd >= 0) {
        char byte;
        QVERIFY(::read(reader.fd, &byte, 1) <= 0);
    }
    QVERIFY(!QFileInfo::exists(savePath));
}

void TestUpdateDownloader::createdTemporaryFileIsPrivate() {
    // With no umask to narrow it, the mode asked for at creation is what the
    // file gets.
    Umask umask(0);
    const QByteArray content = randomBytes(64 * 1024, 13);
    server->enqueue(HttpResponse::file(content).stallAfter(1000));
    auto downloader = makeDownloader(server->url("/updater.bin"), md5(content));
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    downloader->download();
    QTRY_COMPARE(QFileInfo(tempPath).size(), qint64(1000));

    struct stat info;
    QCOMPARE(::stat(QFile::encodeName(tempPath).constData(), &info), 0);
    QCOMPARE(info.st_mode & 07777, mode_t(0600));
    // The updater program is started while this process runs; it must not
    // inherit the file.
    const long flags = openFlagsOf(tempPath);
    QVERIFY(flags >= 0);
    QVERIFY(flags & O_CLOEXEC);

    downloader->abort();
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(codeOf(failed), UpdateDownloader::NetworkError);
    QCOMPARE(openFlagsOf(tempPath), -1L);
}

void TestUpdateDownloader::onlyHttpUrlsAreFetched_data() {
    QTest::addColumn<QString>("url");  // "<source>": a local file holding the expected content
    QTest::addColumn<bool>("partial"); // a temporary file is already there

    const QByteArray content = randomBytes(4096, 14);
    QTest::newRow("local file") << "<source>" << false;
    QTest::newRow("data: URL") << "data:application/octet-stream;base64," +
                                      QString::fromLatin1(content.toBase64())
                               << true;
    QTest::newRow("no URL at all") << "" << false;
}

void TestUpdateDownloader::onlyHttpUrlsAreFetched() {
    QFETCH(QString, url);
    QFETCH(bool, partial);

    // Were it fetched, the content would pass the digest check.
    const QByteArray content = randomBytes(4096, 14);
    const QString source = path("source.bin");
    QVERIFY(writeFile(source, content));
    if (url == "<source>")
        url = QUrl::fromLocalFile(source).toString();
    server->setHandler([&content](const HttpRequest &) { return HttpResponse::file(content); });

    if (partial)
        QVERIFY(writeFile(tempPath, content.left(1000)));
    auto downloader = makeDownloader(url, md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    downloader->download();
    QCOMPARE(failed.count(), 0);
    QVERIFY(failed.wait());
    QCOMPARE(finished.count(), 0);
    QCOMPARE(codeOf(failed), UpdateDownloader::AppError);
    QCOMPARE(failed.at(0).at(1).toString(),
             QStringLiteral("Download failed since unsupported url scheme"));
    QCOMPARE(log->messages("ERROR"),
             QStringList{"Fail to download file '" + url + "'. (reason: unsupported scheme)"});

    QCOMPARE(server->requestCount(), 0);
    QVERIFY(!QFileInfo::exists(savePath));
    if (partial)
        QCOMPARE(readFile(tempPath), content.left(1000));
    else
        QVERIFY(!QFileInfo::exists(tempPath));
}

void TestUpdateDownloader::unsafeRedirectsAreRefused_data() {
    QTest::addColumn<QString>("location"); // "<source>": a local file holding the content
    QTest::addColumn<bool>("refused");

    QTest::newRow("to a local file") << "<source>" << true;
    QTest::newRow("to https is followed") << "https://127.0.0.1:<dead>/updater.bin" << false;
}

void TestUpdateDownloader::unsafeRedirectsAreRefused() {
    QFETCH(QString, location);
    QFETCH(bool, refused);

    const QByteArray content = randomBytes(4096, 15);
    const QString source = path("source.bin");
    QVERIFY(writeFile(source, content));
    if (location == "<source>")
        location = QUrl::fromLocalFile(source).toString();
    const quint16 dead = pickFreePort();
    QVERIFY(dead != 0);
    location.replace("<dead>", QString::number(dead));
    // The redirect carries a body, as real servers' do; a refused redirect
    // must not leave it in the file.
    HttpResponse redirect = HttpResponse::redirect(location.toUtf8());
    redirect.body = "<html>moved</html>";
    server->enqueue(redirect);

    QVERIFY(writeFile(tempPath, content.left(1000)));
    auto downloader = makeDownloader(server->url("/updater.bin"), md5(content));
    QSignalSpy finished(downloader.get(), &UpdateDownloader::finished);
    QSignalSpy failed(downloader.get(), &UpdateDownloader::error);
    downloader->download();
    QVERIFY(failed.wait());
    QCOMPARE(finished.count(), 0);
    QCOMPARE(server->requestCount(), 1);
    QVERIFY(!QFileInfo::exists(savePath));

    const QString target = QUrl(location).toString();
    QCOMPARE(log->messages("INFO"), QStringList{"Redirect to " + target});
    const QString refusal = "Unsafe redirection refused. (" + target + ")";
    if (!refused) {
        // Followed: what fails is the connection to the dead port (or, without
        // TLS support, the scheme), not the redirect.
        QCOMPARE(codeOf(failed), QSslSocket::supportsSsl() ? UpdateDownloader::NetworkError
                                                           : UpdateDownloader::UnknownError);
        QVERIFY(!log->messages("ERROR").contains(refusal));
        return;
    }
    QCOMPARE(codeOf(failed), UpdateDownloader::AppError);
    QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Unsafe redirection refused."));
    QCOMPARE(log->messages("ERROR"), QStringList{refusal});
    QCOMPARE(readFile(tempPath), content.left(1000));
}

void TestUpdateDownloader::isAllowedRedirect_data() {
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<bool>("allowed");

    QTest::newRow("http to http") << "http://a/x"
                                  << "http://b/y" << true;
    QTest::newRow("http to https") << "http://a/x"
                                   << "https://b/y" << true;
    QTest::newRow("https to http") << "https://a/x"
                                   << "http://a/x" << false;
    QTest::newRow("https to http, scheme in capitals") << "HTTPS://a/x"
                                                       << "HTTP://a/x" << false;
    QTest::newRow("http to HTTPS") << "http://a/x"
                                   << "HTTPS://a/x" << true;
    QTest::newRow("http to file") << "http://a/x"
                                  << "file:///etc/passwd" << false;
    QTest::newRow("http to ftp") << "http://a/x"
                                 << "ftp://a/x" << false;
    QTest::newRow("http to no scheme") << "http://a/x"
                                       << "/y" << false;
}

void TestUpdateDownloader::isAllowedRedirect() {
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(bool, allowed);

    QCOMPARE(UpdateDownloader::isAllowedRedirect(QUrl(from), QUrl(to)), allowed);
}

QTEST_GUILESS_MAIN(TestUpdateDownloader)
#include "test_update_downloader.moc"
