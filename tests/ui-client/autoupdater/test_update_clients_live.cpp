#include "update-downloader.h"
#include "update-querier.h"

#include "fake-http-server.h"
#include "log-capture.h"
#include "loopback-daemon.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// The clients against the programs users actually meet: nginx serving the
// files and tinyproxy standing in for a corporate proxy.

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

QStringList matching(const QStringList &lines, const QString &pattern) {
    const QRegularExpression re(pattern);
    QStringList found;
    for (const QString &line : lines) {
        if (re.match(line).hasMatch())
            found << line;
    }
    return found;
}

} // namespace

class TestUpdateClientsLive : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void deadProxyIsProxyError_data();
    void deadProxyIsProxyError();
    void tinyproxyCarriesQueryAndDownload();
    void nginxResumesInterruptedDownload();
    void nginxCompressedAnswerSizeIsBounded_data();
    void nginxCompressedAnswerSizeIsBounded();

private:
    QString path(const QString &name) const { return dir->filePath(name); }

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<LogCapture> log;
};

void TestUpdateClientsLive::init() {
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    QVERIFY(QDir(dir->path()).mkdir("www"));
    log = std::make_unique<LogCapture>();
    QVERIFY(log->isValid());
}

void TestUpdateClientsLive::cleanup() {
    log.reset();
    dir.reset();
}

void TestUpdateClientsLive::deadProxyIsProxyError_data() {
    QTest::addColumn<bool>("querier");
    QTest::newRow("query") << true;
    QTest::newRow("download") << false;
}

void TestUpdateClientsLive::deadProxyIsProxyError() {
    QFETCH(bool, querier);

    // The server is fine; the proxy in front of it is not there at all.
    FakeHttpServer server;
    QVERIFY(server.listen());
    server.setHandler([](const HttpRequest &) { return HttpResponse::json("{}"); });
    const quint16 deadPort = pickFreePort();
    QVERIFY(deadPort != 0);
    const QNetworkProxy proxy(QNetworkProxy::HttpProxy, "127.0.0.1", deadPort);
    // The network library reports the refused proxy connection as a plain
    // refused connection; only the configured proxy makes it a proxy error,
    // which is what lets the caller fall back to a direct connection.
    const QString refused =
        QStringLiteral("(code: %1, ").arg(int(QNetworkReply::ConnectionRefusedError));

    if (querier) {
        UpdateQuerier q;
        q.setProxy(proxy);
        q.setServerHost(server.url("/update"));
        QSignalSpy failed(&q, &UpdateQuerier::error);
        q.query();
        QVERIFY(failed.wait());
        QCOMPARE(failed.at(0).at(0).value<UpdateQuerier::UpdateQuerierError>(),
                 UpdateQuerier::ProxyError);
        QCOMPARE(failed.at(0).at(1).toString(),
                 QStringLiteral("Request failed since proxy error."));
        QVERIFY(log->messages("ERROR").value(0).startsWith("Request failed. " + refused));
    } else {
        const QString savePath = path("qlln_0_updater.bin");
        QVERIFY(writeFile(savePath + ".download", "partial"));
        UpdateDownloader d;
        d.setProxy(proxy);
        d.setDownloadUrl(server.url("/updater.bin"));
        d.setSavePath(savePath);
        QSignalSpy failed(&d, &UpdateDownloader::error);
        d.download();
        QVERIFY(failed.wait());
        QCOMPARE(failed.at(0).at(0).value<UpdateDownloader::UpdateDownloaderError>(),
                 UpdateDownloader::ProxyError);
        QCOMPARE(failed.at(0).at(1).toString(),
                 QStringLiteral("Download failed since proxy error"));
        QVERIFY(log->messages("ERROR").value(0).startsWith("Fail to download file. " + refused +
                                                           "reason: proxy error. "));
        // A proxy failure is worth retrying without it: the partial file stays.
        QCOMPARE(readFile(savePath + ".download"), QByteArray("partial"));
    }
    QCOMPARE(server.requestCount(), 0);
}

void TestUpdateClientsLive::tinyproxyCarriesQueryAndDownload() {
    NginxServer nginx(path("www"));
    if (nginx.binary().isEmpty())
        QSKIP("nginx is not installed (Debian package nginx-light)");
    TinyProxy tinyproxy;
    if (tinyproxy.binary().isEmpty())
        QSKIP("tinyproxy is not installed (Debian package tinyproxy)");
    QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
    QVERIFY2(tinyproxy.start(), qPrintable(tinyproxy.errorString()));

    const QByteArray updater = randomBytes(1024 * 1024 + 11, 21);
    QVERIFY(writeFile(path("www/updater.bin"), updater));
    const QByteArray answer = QStringLiteral(R"({"updater":{"name":"updater.bin","url":"%1",)"
                                             R"("checksum":"%2","need_user_permit":false}})")
                                  .arg(nginx.url("/updater.bin"), md5(updater))
                                  .toUtf8();
    QVERIFY(writeFile(path("www/update.json"), answer));
    const QNetworkProxy proxy(QNetworkProxy::HttpProxy, "127.0.0.1", tinyproxy.port());

    UpdateQuerier querier;
    querier.setProxy(proxy);
    querier.setServerHost(nginx.url("/update.json"));
    querier.setIdentify("QLLN-live");
    querier.setClientVersion(50100);
    QSignalSpy answered(&querier, &UpdateQuerier::finished);
    QSignalSpy queryFailed(&querier, &UpdateQuerier::error);
    querier.query();
    QVERIFY(answered.wait());
    QCOMPARE(queryFailed.count(), 0);
    const QJsonObject reply = answered.at(0).at(0).toJsonObject();
    QCOMPARE(reply, QJsonDocument::fromJson(answer).object());

    // Resumed through the proxy: the Range header has to survive it.
    const QString savePath = path("qlln_0_updater.bin");
    QVERIFY(writeFile(savePath + ".download", updater.left(1000)));
    UpdateDownloader downloader;
    downloader.setProxy(proxy);
    const QJsonObject entry = reply.value("updater").toObject();
    downloader.setDownloadUrl(entry.value("url").toString());
    downloader.setExpectChecksum(entry.value("checksum").toString());
    downloader.setSavePath(savePath);
    QSignalSpy downloaded(&downloader, &UpdateDownloader::finished);
    QSignalSpy downloadFailed(&downloader, &UpdateDownloader::error);
    downloader.download();
    QVERIFY(downloaded.wait());
    QCOMPARE(downloadFailed.count(), 0);
    QCOMPARE(readFile(savePath), updater);

    // The proxy forwarded all three requests (the query twice, then the
    // file), and nginx saw them arrive through it.
    const QString origin = QStringLiteral("http://127.0.0.1:%1").arg(nginx.port());
    const QStringList forwarded =
        matching(tinyproxy.logLines(), "Request \\(file descriptor \\d+\\): GET " +
                                           QRegularExpression::escape(origin) + "/");
    QCOMPARE(forwarded.size(), 3);
    QVERIFY2(forwarded.at(0).contains("/update.json?identify=QLLN-live&type=updater&client=50100"),
             qPrintable(forwarded.at(0)));
    QVERIFY(forwarded.at(2).contains("/updater.bin HTTP/1.1"));
    QTRY_COMPARE(matching(nginx.logLines(), "via=\"[^\"]*tinyproxy").size(), 3);
    QCOMPARE(
        matching(
            nginx.logLines(),
            "\"GET /updater.bin HTTP/1.1\" 206 \\d+ range=\"bytes=1000-\" via=\"[^\"]*tinyproxy")
            .size(),
        1);
}

void TestUpdateClientsLive::nginxResumesInterruptedDownload() {
    NginxServer nginx(path("www"));
    if (nginx.binary().isEmpty())
        QSKIP("nginx is not installed (Debian package nginx-light)");
    // A first, rangeless request is throttled so that it is still running when
    // the test interrupts it; the resumed request then runs at full speed.
    nginx.setServerDirectives("        if ($http_range = \"\") { set $limit_rate 262144; }\n");
    QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));

    const QByteArray pack = randomBytes(4 * 1024 * 1024 + 5, 22);
    QVERIFY(writeFile(path("www/pack.zip"), pack));
    const QString savePath = path("qlln_0_pack.zip");
    const QString tempPath = savePath + ".download";

    UpdateDownloader downloader;
    downloader.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    downloader.setDownloadUrl(nginx.url("/pack.zip"));
    downloader.setExpectChecksum(md5(pack));
    downloader.setSavePath(savePath);
    QSignalSpy finished(&downloader, &UpdateDownloader::finished);
    QSignalSpy failed(&downloader, &UpdateDownloader::error);
    QSignalSpy progress(&downloader, &UpdateDownloader::downloadProgress);

    downloader.download();
    QTRY_VERIFY(QFileInfo(tempPath).size() > 0);
    downloader.abort();
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(failed.at(0).at(0).value<UpdateDownloader::UpdateDownloaderError>(),
             UpdateDownloader::NetworkError);
    const QByteArray partial = readFile(tempPath);
    QVERIFY(partial.size() > 0 && partial.size() < pack.size());
    QVERIFY(pack.startsWith(partial));

    progress.clear();
    downloader.download();
    QVERIFY(finished.wait());
    QCOMPARE(failed.count(), 1);
    QCOMPARE(readFile(savePath), pack);
    QVERIFY(!QFileInfo::exists(tempPath));
    QVERIFY(UpdateDownloader::isChecksumMatched(savePath, md5(pack)));
    // Progress of the resumed attempt counts the part that was already there.
    QVERIFY(!progress.isEmpty());
    QVERIFY(progress.first().at(0).toLongLong() >= partial.size());
    QCOMPARE(progress.last().at(1).toLongLong(), qint64(pack.size()));
    QVERIFY(log->messages("DEBUG").contains(
        QStringLiteral("Resume download start from byte: %1.").arg(partial.size())));

    // nginx answered the resumed request with exactly the missing part.
    const QString resumed =
        QStringLiteral("\"GET /pack.zip HTTP/1.1\" 206 (\\d+) range=\"bytes=%1-\"")
            .arg(partial.size());
    QTRY_COMPARE(matching(nginx.logLines(), resumed).size(), 1);
    const QRegularExpressionMatch sent =
        QRegularExpression(resumed).match(matching(nginx.logLines(), resumed).first());
    QVERIFY(sent.captured(1).toLongLong() > pack.size() - partial.size());
    // The interrupted first request: no Range, and less than the file sent.
    const QString first = "\"GET /pack.zip HTTP/1.1\" 200 (\\d+) range=\"-\"";
    QTRY_COMPARE(matching(nginx.logLines(), first).size(), 1);
    const QRegularExpressionMatch cut =
        QRegularExpression(first).match(matching(nginx.logLines(), first).first());
    QVERIFY(cut.captured(1).toLongLong() < pack.size());
}

void TestUpdateClientsLive::nginxCompressedAnswerSizeIsBounded_data() {
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("delivered");

    // Small on the wire: the limit applies to the answer once the network
    // library has inflated it.
    QTest::newRow("2 MiB, compressed to a few KiB") << 2 * 1024 * 1024 << false;
    QTest::newRow("900 KiB, compressed") << 900 * 1024 << true;
}

void TestUpdateClientsLive::nginxCompressedAnswerSizeIsBounded() {
    QFETCH(int, size);
    QFETCH(bool, delivered);

    NginxServer nginx(path("www"));
    if (nginx.binary().isEmpty())
        QSKIP("nginx is not installed (Debian package nginx-light)");
    nginx.setServerDirectives("        gzip on;\n        gzip_types application/octet-stream;\n"
                              "        gzip_min_length 1;\n");
    QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
    const QByteArray frame = R"({"pad":""})";
    const QByteArray answer = R"({"pad":")" + QByteArray(size - frame.size(), ' ') + "\"}";
    QVERIFY(writeFile(path("www/update.json"), answer));

    UpdateQuerier querier;
    querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    querier.setServerHost(nginx.url("/update.json?v=1"));
    QSignalSpy finished(&querier, &UpdateQuerier::finished);
    QSignalSpy failed(&querier, &UpdateQuerier::error);
    querier.query();
    QTRY_COMPARE(finished.count() + failed.count(), 1);

    if (delivered) {
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toJsonObject().value("pad").toString().size(),
                 size - frame.size());
    } else {
        QCOMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).value<UpdateQuerier::UpdateQuerierError>(),
                 UpdateQuerier::AppError);
        QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Response is too large."));
        QCOMPARE(log->messages("ERROR"),
                 QStringList{QStringLiteral("Response is too large. (limit: 1048576 bytes)")});
    }

    // What nginx put on the wire: a small fraction of the answer.
    const QString request = "\"GET /update.json\\?v=1 HTTP/1.1\" 200 (\\d+) ";
    QTRY_COMPARE(matching(nginx.logLines(), request).size(), 1);
    const qint64 sent = QRegularExpression(request)
                            .match(matching(nginx.logLines(), request).first())
                            .captured(1)
                            .toLongLong();
    QVERIFY2(sent < size / 10, qPrintable(QString::number(sent)));
}

QTEST_GUILESS_MAIN(TestUpdateClientsLive)
#include "test_update_clients_live.moc"
