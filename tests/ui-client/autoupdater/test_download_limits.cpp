// The downloader held to the size and SHA-256 a signed answer gives: nothing
// past the size is written, and a file of other bytes never lands.

#include "fake-http-server.h"
#include "update-downloader.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {
const QByteArray content = QByteArray("Quillon update pack, ").repeated(10000);
const QString md5 = QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex();
const QByteArray sha256 = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex();
} // namespace

class TestDownloadLimits : public QObject {
    Q_OBJECT

private slots:
    void outcomes_data() {
        QTest::addColumn<HttpResponse>("answer");
        QTest::addColumn<int>("partial"); // bytes of the file already there
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<QString>("reason"); // empty: the file is finished and in place

        const QByteArray longer = QByteArray::number(content.size() + 1);
        const HttpResponse whole = HttpResponse::with(200, content).honourRange();
        HttpResponse endless = HttpResponse::with(200, content.repeated(20));
        endless.length = false;
        const QString large = "File larger than expected";
        QTest::newRow("resumed: the earlier part counts") << whole << 1000 << sha256 << "";
        QTest::newRow("a partial file past the size starts over")
            << whole << content.size() + 10 << sha256 << "";
        QTest::newRow("other bytes, same MD5")
            << whole << 0 << QByteArray(64, '0') << "File sha256 not matched";
        QTest::newRow("shorter") << HttpResponse::with(200, content.chopped(1)) << 0 << sha256
                                 << "File size not matched";
        // Stalled after 100 bytes: only a refusal at the headers ends these in time.
        QTest::newRow("announced longer")
            << HttpResponse::with(200, content + "x").stall(100) << 0 << sha256 << large;
        QTest::newRow("a 206 of a longer file")
            << HttpResponse::with(206, content.mid(1000))
                   .header("Content-Range", "bytes 1000-" + longer + "/" + longer)
                   .stall(100)
            << 1000 << sha256 << large;
        QTest::newRow("an endless body stops at the size") << endless << 0 << sha256 << large;
    }

    void outcomes() {
        QFETCH(HttpResponse, answer);
        QFETCH(int, partial);
        QFETCH(QByteArray, expected);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        FakeHttpServer server;
        server.enqueue(answer);
        const QString save = dir.filePath("pack");
        QFile temp(save + UpdateDownloader::TEMP_EXT);
        QVERIFY(temp.open(QIODevice::WriteOnly));
        temp.write(content.left(partial) + QByteArray(qMax(0, partial - content.size()), 'x'));
        temp.close();
        UpdateDownloader downloader;
        downloader.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        downloader.setTimeout(500);
        downloader.setDownloadUrl(server.url("/pack"));
        downloader.setSavePath(save);
        downloader.setExpectChecksum(md5);
        downloader.setExpectSize(content.size());
        downloader.setExpectSha256(expected.toUpper());
        QStringList results;
        connect(&downloader, &UpdateDownloader::finished, [&] { results << ""; });
        connect(&downloader, &UpdateDownloader::error,
                [&](int code, const QString &why) { results << QString::number(code) + why; });

        downloader.download();
        QTRY_COMPARE(results.size(), 1);
        QCOMPARE(results[0], reason.isEmpty() ? reason : "6" + reason);
        QVERIFY(!temp.exists());
        // A complete earlier file is reused on the same terms.
        QCOMPARE(UpdateDownloader::isChecksumMatched(save, md5, content.size(), sha256),
                 reason.isEmpty());
        QVERIFY(!UpdateDownloader::isChecksumMatched(save, md5, content.size() + 1));
        QVERIFY(!UpdateDownloader::isChecksumMatched(save, md5, -1, QByteArray(64, '0')));
    }
};

QTEST_MAIN(TestDownloadLimits)
#include "test_download_limits.moc"
