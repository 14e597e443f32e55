// The updater's network clients and workflow controller, in-process against
// a server that makes faults happen on cue, and the checks an answer must pass
// before it is acted on.

#include "autoupdater.h"
#include "fake-http-server.h"
#include "md5.h"
#include "texts/strtab.h"
#include "update-info.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QJsonDocument>
#include <QProgressDialog>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int MiB = 1024 * 1024;

// A period of 21 bytes, so that a file put together from the wrong offsets
// shows.
const QByteArray content = QByteArray("Quillon update pack, ").repeated(10000);

QString md5(const QByteArray &bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
}
const QByteArray sha256 = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex();

QByteArray readFile(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<none>");
}

bool writeFile(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// Without a length the body ends with the connection, or with its chunks.
HttpResponse unframed(int status, const QByteArray &body) {
    HttpResponse response(status, body);
    response.length = false;
    return response;
}

QByteArray jsonOfSize(int size) {
    return "{\"p\":\"" + QByteArray(size - 8, 'x') + "\"}";
}

QNetworkProxy proxyAt(const FakeHttpServer *server) {
    return server ? QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server->serverPort())
                  : QNetworkProxy(QNetworkProxy::NoProxy);
}

// What lstat() tells of a path: a planted object must come out unchanged.
QList<qint64> pathState(const QString &path) {
    struct stat i {};
    ::lstat(QFile::encodeName(path).constData(), &i);
    return {qint64(i.st_mode), qint64(i.st_ino), qint64(i.st_size), qint64(i.st_nlink)};
}

} // namespace

class TestAutoUpdater : public QObject {
    Q_OBJECT

    template <class Client>
    void watch(Client &client) {
        connect(&client, &Client::finished, this, [this] { ++done; });
        connect(&client, &Client::error, this, [this](int code, const QString &why) {
            codes << code;
            errors << QString::number(code) + ": " + why;
        });
    }

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<FakeHttpServer> server;
    QString save;
    QString temp;
    int done = 0;
    QList<int> codes;
    QStringList errors; // "<code>: <reason>"

private slots:
    void initTestCase() { StrTable::InitStrTable(); }

    void init() {
        dir = std::make_unique<QTemporaryDir>();
        server = std::make_unique<FakeHttpServer>();
        QVERIFY(server->isListening());
        save = dir->filePath("qlln_0_file.bin");
        temp = save + ".download";
        done = 0;
        codes.clear();
        errors.clear();
    }

    void querierOutcomes_data() {
        QTest::addColumn<HttpResponse>("answer");
        QTest::addColumn<int>("proxy"); // 0: none; 1: the library's default; 2: the server
        QTest::addColumn<int>("code");  // 0: the answer is delivered

        const HttpResponse silence = HttpResponse(200, "{}").stall(0);
        QTest::newRow("1 MiB is delivered") << HttpResponse(200, jsonOfSize(MiB)) << 0 << 0;
        QTest::newRow("1 MiB and a byte") << HttpResponse(200, jsonOfSize(MiB + 1)) << 0 << 4;
        QTest::newRow("an endless answer is cut off as it arrives")
            << unframed(200, jsonOfSize(8 * MiB)).stall(MiB + 64 * 1024) << 0 << 4;
        QTest::newRow("time-out, default proxy: proxy") << silence << 1 << 2;
        QTest::newRow("404") << HttpResponse(404) << 0 << 3;
        QTest::newRow("500") << HttpResponse(500) << 0 << 5;
        // Followed, this would fail as a missing file (3), not as a refusal.
        QTest::newRow("redirect to a local file")
            << HttpResponse(302).header("Location", "file:///none") << 0 << 4;
    }

    void querierOutcomes() {
        QFETCH(HttpResponse, answer);
        QFETCH(int, proxy);
        QFETCH(int, code);
        server->enqueue(answer);
        UpdateQuerier querier;
        watch(querier);
        if (proxy != 1)
            querier.setProxy(proxyAt(proxy ? server.get() : nullptr));
        querier.setTimeout(answer.stallAfter == 0 ? 300 : 60000);
        // With a query of its own the host is asked once, as it stands.
        querier.setServerHost(server->url("/q?v=1"));

        querier.query();
        QTRY_COMPARE(done + codes.size(), 1);
        QCOMPARE(codes, code ? QList<int>{code} : QList<int>());
        QCOMPARE(server->requests.size(), 1);
    }

    void firstQueryIsSentTwiceThenStored() {
        server->handler = [](const HttpRequest &) { return HttpResponse(200, "{}"); };
        UpdateQuerier querier;
        watch(querier);
        querier.setProxy(proxyAt(nullptr));
        querier.setServerHost(server->url("/q"));
        querier.setIdentify("first");

        querier.query();
        QTRY_COMPARE(done, 1);
        querier.setIdentify("second");
        querier.query();
        QTRY_COMPARE(done, 2);

        QCOMPARE(server->requests.size(), 3);
        for (const HttpRequest &request : server->requests)
            QVERIFY(request.target.startsWith("/q?identify=first&type=updater&"));
    }

    void redirectsAreCountedOverTheObjectsLife_data() {
        QTest::addColumn<bool>("download");
        QTest::addColumn<QList<int>>("chains"); // redirects before the answer, one run each

        for (const bool download : {false, true}) {
            const char *client = download ? "download" : "query";
            QTest::addRow("%s: 33 are followed", client) << download << QList<int>{33};
            QTest::addRow("%s: 20, then the 14th fails", client) << download << QList<int>{20, 14};
        }
    }

    void redirectsAreCountedOverTheObjectsLife() {
        QFETCH(bool, download);
        QFETCH(QList<int>, chains);
        // "/c?n=<n>" redirects to "/c?n=<n-1>", with a page, down to the answer.
        const QByteArray answer = "{\"ok\":1}";
        server->handler = [&answer](const HttpRequest &request) {
            const int n = QUrlQuery(QUrl(request.target).query()).queryItemValue("n").toInt();
            if (n == 0)
                return HttpResponse(200, answer).honourRange();
            return HttpResponse(301, "<html>moved</html>")
                .header("Location", "/c?n=" + QByteArray::number(n - 1));
        };
        UpdateQuerier querier;
        UpdateDownloader downloader;
        watch(querier);
        watch(downloader);
        querier.setProxy(proxyAt(nullptr));
        downloader.setProxy(proxyAt(nullptr));
        downloader.setExpectChecksum(md5(answer));

        int followed = 0;
        for (int i = 0; i < chains.size(); ++i) {
            const QString url = server->url(QStringLiteral("/c?n=%1").arg(chains[i]));
            downloader.setDownloadUrl(url);
            downloader.setSavePath(save + QString::number(i));
            querier.setServerHost(url);
            download ? downloader.download() : querier.query();
            QTRY_COMPARE(done + codes.size(), i + 1);
            followed += chains[i];
        }

        const bool succeeded = followed <= 33;
        QCOMPARE(codes, succeeded ? QList<int>() : QList<int>{4});
        // One reply per run ends it.
        QCOMPARE(server->requests.size(), qMin(followed, 33) + chains.size());
        // The pages that came with the redirects are not part of the file.
        if (download && succeeded)
            QCOMPARE(readFile(save + "0"), answer);
    }

    void unsafeRedirects_data() {
        QTest::addColumn<QUrl>("from");
        QTest::addColumn<QUrl>("to");
        QTest::addColumn<bool>("allowed");

        QTest::newRow("http to https") << QUrl("http://a/x") << QUrl("https://b/y") << true;
        QTest::newRow("https to http") << QUrl("https://a/x") << QUrl("http://a/x") << false;
        QTest::newRow("http to file") << QUrl("http://a/x") << QUrl("file:///etc/passwd") << false;
    }

    void unsafeRedirects() {
        QFETCH(QUrl, from);
        QFETCH(QUrl, to);
        QTEST(UpdateQuerier::isAllowedRedirect(from, to), "allowed");
        QTEST(UpdateDownloader::isAllowedRedirect(from, to), "allowed");
    }

    void downloadOutcomes_data() {
        QTest::addColumn<HttpResponse>("answer");
        QTest::addColumn<QString>("how");
        QTest::addColumn<int>("partial");  // bytes of the file already there; -1: no file
        QTest::addColumn<QString>("code"); // "0": the file is finished and in place
        QTest::addColumn<int>("kept");     // bytes of the temporary file kept; -1: removed
        QTest::addColumn<int>("requests");

        const int size = content.size();
        const QByteArray to = "-" + QByteArray::number(size - 1) + "/" + QByteArray::number(size);
        const HttpResponse file(200, content);
        const HttpResponse resumable = HttpResponse(file).honourRange();
        QTest::newRow("206 from where the file ends") << resumable << "" << 1000 << "0" << -1 << 1;
        QTest::newRow("200 to a ranged request is written from byte 0")
            << file << "" << 1000 << "0" << -1 << 1;
        QTest::newRow("206 from elsewhere removes the file")
            << HttpResponse(206, content).header("Content-Range", "bytes 0" + to).stall(4096) << ""
            << 1000 << "3" << -1 << 1;
        QTest::newRow("a cut connection keeps the file")
            << HttpResponse(resumable).stall(100000) << "cut" << -1 << "1" << 100000 << 1;
        QTest::newRow("a stall ends with the time-out, keeps the file")
            << HttpResponse(resumable).stall(100000) << "stall" << 1000 << "1" << 101000 << 1;
        QTest::newRow("a reply short of its length is kept")
            << unframed(206, "1388\r\n" + content.mid(1000, 5000) + "\r\n0\r\n\r\n")
                   .header("Transfer-Encoding", "chunked")
                   .header("Content-Range", "bytes 1000" + to)
                   .header("Content-Length", QByteArray::number(size - 1000))
            << "" << 1000 << "1" << 6000 << 1;
        QTest::newRow("a proxy's 407 page is not written")
            << HttpResponse(407, "<html>sign in</html>") << "proxy" << 1000 << "2" << 1000 << 1;
        // Not an error to the network library, and no file either: what is on
        // disk goes to the digest check instead of being retried ten times.
        QTest::newRow("a 300 page is checked, not resumed")
            << HttpResponse(300, "<html>choose</html>") << "" << 1000 << "6" << -1 << 1;
        QTest::newRow("a complete file needs no request")
            << HttpResponse(404) << "" << size << "0" << -1 << 0;
        QTest::newRow("a data: URL is not fetched") << file << "data" << 1000 << "4" << 1000 << 0;
        QTest::newRow("a failed write stops at once, removes the file")
            << HttpResponse(resumable).stall(150 * 1024) << "full" << 1000 << "6" << -1 << 1;

        // Held to the size and SHA-256 a signed answer gives ("forged": another
        // SHA-256): nothing past the size is written, other bytes never land.
        const QString large = "6: File larger than expected";
        QTest::newRow("signed, resumed: the earlier part counts in the SHA-256")
            << resumable << "signed" << 1000 << "0" << -1 << 1;
        QTest::newRow("signed, a partial file past the size starts over")
            << resumable << "signed" << size + 10 << "0" << -1 << 1;
        QTest::newRow("signed, other bytes with the same MD5")
            << resumable << "forged" << 0 << "6: File sha256 not matched" << -1 << 1;
        QTest::newRow("signed, shorter") << HttpResponse(200, content.chopped(1)) << "signed" << 0
                                         << "6: File size not matched" << -1 << 1;
        // Stalled after 100 bytes: only a refusal at the headers ends these in time.
        QTest::newRow("signed, announced longer")
            << HttpResponse(200, content + "x").stall(100) << "signed" << 0 << large << -1 << 1;
        QTest::newRow("signed, a 206 of a longer file")
            << HttpResponse(206, content.mid(1000))
                   .header("Content-Range", "bytes 1000-" + QByteArray::number(size) + "/" +
                                                QByteArray::number(size + 1))
                   .stall(100)
            << "signed" << 1000 << large << -1 << 1;
        QTest::newRow("signed, an endless body stops at the size")
            << unframed(200, content.repeated(20)) << "signed" << 0 << large << -1 << 1;
    }

    void downloadOutcomes() {
        QFETCH(HttpResponse, answer);
        QFETCH(QString, how);
        QFETCH(int, partial);
        QFETCH(QString, code);
        QFETCH(int, kept);
        server->enqueue(answer);
        QVERIFY(partial < 0 ||
                writeFile(temp, content.left(partial) +
                                    QByteArray(qMax(0, partial - content.size()), 'x')));
        UpdateDownloader downloader;
        watch(downloader);
        downloader.setProxy(proxyAt(how == "proxy" ? server.get() : nullptr));
        downloader.setTimeout(how == "stall" ? 300 : 60000);
        // Were it fetched, this URL would deliver the whole file.
        downloader.setDownloadUrl(how == "data" ? "data:;base64," + content.toBase64()
                                                : server->url("/file.bin"));
        downloader.setExpectChecksum(md5(content));
        downloader.setSavePath(save);
        if (how == "signed" || how == "forged") {
            downloader.setExpectSize(content.size());
            downloader.setExpectSha256(how == "signed" ? sha256.toUpper() : QByteArray(64, '0'));
        }
        // Writes past 64 KiB fail as on a full disk; the signal would end the test.
        struct rlimit previous;
        ::getrlimit(RLIMIT_FSIZE, &previous);
        auto restore = qScopeGuard([&previous] { ::setrlimit(RLIMIT_FSIZE, &previous); });
        if (how == "full") {
            std::signal(SIGXFSZ, SIG_IGN);
            struct rlimit limit = {64 * 1024, previous.rlim_max};
            QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limit), 0);
        }
        const mode_t umask = ::umask(0);

        downloader.download();
        ::umask(umask);
        // Never from inside download(): the controller may end the event loop
        // in reaction, which only works from within it.
        QCOMPARE(done + codes.size(), 0);
        // Created without a umask to narrow the mode it asks for.
        struct stat info {};
        QVERIFY(partial >= 0 || (::stat(QFile::encodeName(temp).constData(), &info) == 0 &&
                                 (info.st_mode & 07777) == 0600));
        if (how == "cut") {
            QTRY_COMPARE(QFileInfo(temp).size(), qint64(kept));
            server->cutConnections();
        }
        QTRY_COMPARE(done + codes.size(), 1);
        QVERIFY2(errors.value(0, "0").startsWith(code), qPrintable(errors.value(0)));
        QCOMPARE(readFile(save), code == "0" ? content : QByteArray("<none>"));
        QCOMPARE(readFile(temp), kept < 0 ? QByteArray("<none>") : content.left(kept));
        QTEST(server->requests.size(), "requests");
        const QByteArray range = partial > 0 && partial < content.size()
                                     ? "bytes=" + QByteArray::number(partial) + "-"
                                     : "";
        for (const HttpRequest &request : server->requests)
            QCOMPARE(request.headers.value("range"), range);
        // A complete earlier file is reused on the same terms.
        if (how == "signed" && code == "0") {
            QVERIFY(
                UpdateDownloader::isChecksumMatched(save, md5(content), content.size(), sha256));
            QVERIFY(!UpdateDownloader::isChecksumMatched(save, md5(content), content.size() + 1));
            QVERIFY(
                !UpdateDownloader::isChecksumMatched(save, md5(content), -1, QByteArray(64, '0')));
        }
        if (code != "1" && code != "2")
            return;

        // What was kept is resumed where it ends.
        server->enqueue(HttpResponse(200, content).honourRange());
        downloader.download();
        QTRY_COMPARE(done, 1);
        QCOMPARE(server->requests.last().headers.value("range"),
                 "bytes=" + QByteArray::number(kept) + "-");
        QCOMPARE(readFile(save), content);
    }

    void unusableTemporaryPathIsLeftAlone_data() {
        QTest::addColumn<QString>("planted");
        for (const char *planted : {"symlink", "fifo", "directory", "hardlink"})
            QTest::newRow(planted) << planted;
    }

    void unusableTemporaryPathIsLeftAlone() {
        QFETCH(QString, planted);
        const QString victim = dir->filePath("victim");
        QVERIFY(writeFile(victim, "the user's own data"));
        const QByteArray native = QFile::encodeName(temp);
        if (planted == "symlink")
            QVERIFY(QFile::link(victim, temp));
        else if (planted == "fifo")
            QCOMPARE(::mkfifo(native.constData(), 0666), 0);
        else if (planted == "directory")
            QVERIFY(QDir().mkdir(temp));
        else
            QCOMPARE(::link(QFile::encodeName(victim).constData(), native.constData()), 0);
        const QList<qint64> before = pathState(temp);
        UpdateDownloader downloader;
        watch(downloader);
        downloader.setDownloadUrl(server->url("/file.bin"));
        downloader.setSavePath(save);

        downloader.download();
        QTRY_COMPARE(codes, QList<int>{6});
        QCOMPARE(pathState(temp), before);
        QCOMPARE(readFile(victim), QByteArray("the user's own data"));
        QCOMPARE(server->requests.size(), 0);
    }

    // Ten time-outs are retried for the query and for each file, which only
    // gets through if each download starts a count of its own.
    void retries_data() {
        QTest::addColumn<bool>("proxy");    // through the server, as a proxy refusing everything
        QTest::addColumn<int>("queries");   // direct queries left unanswered before the answer
        QTest::addColumn<int>("downloads"); // the same for each file
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("proxied");
        QTest::addColumn<int>("direct"); // a first answer is asked for twice

        QTest::newRow("ten time-outs, then the answer") << false << 10 << 0 << 0 << 0 << 14;
        QTest::newRow("the eleventh time-out ends the run") << false << 11 << 0 << 1 << 0 << 11;
        // The downloads fall back to no proxy after the updater's eleven errors,
        // the pack included.
        QTest::newRow("after eleven proxy errors each, ten time-outs direct")
            << true << 10 << 0 << 0 << 22 << 14;
        QTest::newRow("ten time-outs for each file") << false << 0 << 10 << 0 << 0 << 24;
    }

    void retries() {
        QFETCH(int, queries);
        QFETCH(int, downloads);
        const QByteArray script = "#!/bin/true\n";
        const QByteArray pack(300 * 1024, 'p');
        const auto entry = [this](const char *name, const QByteArray &bytes) {
            return QJsonObject{{"name", name},
                               {"url", server->url(QStringLiteral("/") + name)},
                               {"checksum", md5(bytes)}};
        };
        const QByteArray answer = QJsonDocument(QJsonObject{{"updater", entry("u", script)},
                                                            {"update_pack", entry("p", pack)}})
                                      .toJson();
        QHash<QByteArray, int> silent{{"/q", queries}, {"/u", downloads}, {"/p", downloads}};
        const QHash<QByteArray, QByteArray> bodies{{"/q", answer}, {"/u", script}, {"/p", pack}};
        server->handler = [&](const HttpRequest &request) {
            if (!request.target.startsWith('/'))
                return HttpResponse(407);
            const QByteArray path = request.target.left(2);
            return HttpResponse(200, bodies[path]).honourRange().stall(silent[path]-- > 0 ? 0 : -1);
        };
        AutoUpdater updater;
        updater.setShowDialogOption(true);
        // Only the pack's download may show progress, not the updater's.
        bool dialogForUpdater = false;
        auto *downloader = updater.findChild<UpdateDownloader *>();
        connect(downloader, &UpdateDownloader::finished, this, [&] {
            if (downloader->getSavePath().endsWith("_u"))
                dialogForUpdater = !QApplication::topLevelWidgets().isEmpty();
        });

        QFETCH(bool, proxy);
        updater.setUpdateServerHost(server->url("/q"));
        updater.setTempPath(dir->path());
        updater.setProxy(proxyAt(proxy ? server.get() : nullptr));
        // Each unanswered request costs one time-out.
        updater.findChild<UpdateQuerier *>()->setTimeout(200);
        downloader->setTimeout(200);
        QTimer::singleShot(60000, &updater, [] { QCoreApplication::exit(-99); });

        updater.update();
        QTEST(QCoreApplication::exec(), "status");
        int proxied = 0;
        for (const HttpRequest &request : server->requests)
            proxied += !request.target.startsWith('/');
        QTEST(proxied, "proxied");
        QTEST(server->requests.size() - proxied, "direct");
        QVERIFY(!dialogForUpdater);
        auto *dialog = qobject_cast<QProgressDialog *>(QApplication::topLevelWidgets().value(0));
        QFETCH(int, status);
        QCOMPARE(dialog ? dialog->value() : -1, status ? -1 : 100);
    }

    void answerChecks_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("accepted");

        const QByteArray u = "{\"updater\":{\"name\":\"u\",\"url\":\"http://h/u\"}";
        const auto pack = [&u](const QByteArray &name, const QByteArray &url) {
            return u + ",\"update_pack\":{\"name\":\"" + name + "\",\"url\":\"" + url + "\"}}";
        };
        const QByteArray jis = QString(86, QChar(0x65e5)).toUtf8();
        QTest::newRow("a 255-byte name") << pack(QByteArray(255, 'p'), "https://h/p") << true;
        QTest::newRow("updater not an object") << QByteArray("{\"updater\":\"u\"}") << false;
        QTest::newRow("pack not an object") << u + ",\"update_pack\":null}" << false;
        QTest::newRow("empty name") << pack("", "http://h/p") << false;
        QTest::newRow("name ..") << pack("..", "http://h/p") << false;
        QTest::newRow("control character") << pack("p\\n", "http://h/p") << false;
        QTest::newRow("C1 control character") << pack("p\xc2\x85", "http://h/p") << false;
        QTest::newRow("258 bytes in 86 characters") << pack(jis, "http://h/p") << false;
        QTest::newRow("file: URL") << pack("p", "file:///bin/sh") << false;
        QTest::newRow("URL without host") << pack("p", "http:///p") << false;
        QTest::newRow("both named alike") << pack("u", "http://h/p") << false;
    }

    void answerChecks() {
        QFETCH(QByteArray, json);
        QTEST(UpdateInfo::findProblem(QJsonDocument::fromJson(json).object()).isEmpty(),
              "accepted");
    }

    // The program's own MD5 against Qt's, fed in pieces that end on every side
    // of a block boundary, the padding's two cases included, and looked at on
    // the way.
    void md5MatchesQt() {
        QByteArray data(300, Qt::Uninitialized);
        for (int k = 0; k < data.size(); ++k)
            data[k] = static_cast<char>(k * 37 + k / 7);
        Md5 md5;
        for (int size = 0; size <= data.size(); ++size) {
            md5.reset();
            for (int at = 0, piece = 1; at < size; at += piece, piece = piece * 5 % 71) {
                md5.addData(data.constData() + at, qMin(piece, size - at));
                md5.result();
            }
            QCOMPARE(md5.result(),
                     QCryptographicHash::hash(data.left(size), QCryptographicHash::Md5));
        }
    }
};

QTEST_MAIN(TestAutoUpdater)
#include "test_autoupdater.moc"
