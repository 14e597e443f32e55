// The workflow controller in-process against the scripted server: the exact
// retry counts, the fall-back from a failing proxy and the progress dialog.

#include "autoupdater.h"
#include "fake-http-server.h"
#include "texts/strtab.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QJsonDocument>
#include <QProgressDialog>
#include <QTemporaryDir>
#include <QtTest>

class TestAutoUpdater : public QObject {
    Q_OBJECT

    QTemporaryDir temp;
    FakeHttpServer server;

    // Runs an update through the event loop; the result is the exit status.
    int run(AutoUpdater &updater, const QNetworkProxy &proxy) {
        updater.setUpdateServerHost(server.url("/q"));
        updater.setTempPath(temp.path());
        updater.setProxy(proxy);
        // Each silent answer costs one time-out.
        updater.findChild<UpdateQuerier *>()->setTimeout(200);
        updater.findChild<UpdateDownloader *>()->setTimeout(200);
        QTimer guard;
        connect(&guard, &QTimer::timeout, [] { QCoreApplication::exit(-99); });
        guard.start(60000);
        updater.update();
        return QCoreApplication::exec();
    }

private slots:
    void initTestCase() { StrTable::InitStrTable(); }

    void queryRetries_data() {
        QTest::addColumn<bool>("proxy"); // through the server, as a proxy refusing everything
        QTest::addColumn<int>("silent"); // direct requests left unanswered before the answer
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("proxied");
        QTest::addColumn<int>("direct"); // a first answer is asked for twice

        QTest::newRow("ten time-outs, then the answer") << false << 10 << 0 << 0 << 12;
        QTest::newRow("the eleventh time-out ends the run") << false << 11 << 1 << 0 << 11;
        QTest::newRow("after eleven proxy errors, ten time-outs direct")
            << true << 10 << 0 << 11 << 12;
    }

    void queryRetries() {
        QFETCH(bool, proxy);
        QFETCH(int, silent);
        server.requests.clear();
        server.handler = [&silent](const HttpRequest &request) {
            if (!request.target.startsWith('/'))
                return HttpResponse::with(407);
            return HttpResponse::with(200, "{}").stall(silent-- > 0 ? 0 : -1);
        };
        AutoUpdater updater;

        QTEST(run(updater,
                  proxy ? QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server.serverPort())
                        : QNetworkProxy(QNetworkProxy::NoProxy)),
              "status");
        int proxied = 0;
        for (const HttpRequest &request : server.requests)
            proxied += !request.target.startsWith('/');
        QTEST(proxied, "proxied");
        QTEST(server.requests.size() - proxied, "direct");
    }

    void downloadRetriesAreCountedPerFile() {
        // Ten time-outs for each file: twenty in a row, which only get through
        // if each download starts a count of its own.
        const QByteArray script = "#!/bin/true\n";
        const QByteArray pack(300 * 1024, 'p');
        const auto entry = [this](const char *name, const QByteArray &bytes) {
            const QByteArray md5 = QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
            return QJsonObject{{"name", name},
                               {"url", server.url(QStringLiteral("/") + name)},
                               {"checksum", QString(md5.toHex())}};
        };
        const QByteArray answer = QJsonDocument(QJsonObject{{"updater", entry("u", script)},
                                                            {"update_pack", entry("p", pack)}})
                                      .toJson();
        QHash<QByteArray, int> silent{{"/u", 10}, {"/p", 10}};
        server.handler = [&](const HttpRequest &request) {
            if (request.target.startsWith("/q"))
                return HttpResponse::with(200, answer);
            return HttpResponse::with(200, request.target == "/u" ? script : pack)
                .honourRange()
                .stall(silent[request.target]-- > 0 ? 0 : -1);
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

        QCOMPARE(run(updater, QNetworkProxy(QNetworkProxy::NoProxy)), 0);
        QCOMPARE(silent, (QHash<QByteArray, int>{{"/u", -1}, {"/p", -1}}));
        QVERIFY(!dialogForUpdater);
        auto *dialog = qobject_cast<QProgressDialog *>(QApplication::topLevelWidgets().value(0));
        QVERIFY(dialog);
        QCOMPARE(dialog->value(), 100);
    }
};

QTEST_MAIN(TestAutoUpdater)
#include "test_autoupdater.moc"
