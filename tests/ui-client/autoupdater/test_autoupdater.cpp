// The workflow controller, driven in-process against a scripted HTTP server:
// what each kind of answer and failure ends with, retries and the proxy
// fall-back, reuse of earlier downloads, the progress dialog, the permission
// branch of the tray and the hand-off to the downloaded updater.

#include "app-setup.h"
#include "autoupdater.h"
#include "fake-http-server.h"
#include "log-capture.h"
#include "texts/strtab.h"
#include "uipathmanager.h"

#include <QAction>
#include <QApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QMenu>
#include <QProgressDialog>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString md5(const QByteArray &data) {
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}

QByteArray readFile(const QString &path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &data) {
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(data) == data.size();
}

quint16 closedPort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort(); // closed again when probe goes
}

// The hand-off target: records its working directory and each argument,
// every one ended by a NUL so that any byte an argument holds survives, then
// marks that it is done.
QByteArray recorderScript(const QString &record) {
    return QByteArrayLiteral("#!/bin/sh\n"
                             "out='") +
           QFile::encodeName(record) +
           QByteArrayLiteral("'\n"
                             "printf '%s\\0' \"$(pwd)\" \"$@\" > \"$out.tmp\"\n"
                             "mv \"$out.tmp\" \"$out\"\n");
}

} // namespace

class TestAutoUpdater : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void emptyAnswerEndsWithZero();
    void failuresEndWithTheirCode_data();
    void failuresEndWithTheirCode();
    void queryRetriesThenSucceeds();
    void queryGivesUpAfterElevenNetworkErrors();
    void failingProxyFallsBackToDirect();
    void downloadRetriesAreCountedPerDownload();
    void updaterAndPackAreHandedOver();
    void handOffArguments_data();
    void handOffArguments();
    void unsafeAnswersAreRefused_data();
    void unsafeAnswersAreRefused();
    void matchingFilesAreReused();
    void untrustedFilesAreNotReused_data();
    void untrustedFilesAreNotReused();
    void staleFileIsReplaced();
    void progressDialogShowsThePackOnly();
    void permissionIsAwaited_data();
    void permissionIsAwaited();
    void trayIconFollowsTheStyle();
    void pathsDeriveFromTheExecutableFolder_data();
    void pathsDeriveFromTheExecutableFolder();

private:
    // Runs the controller's update() through the event loop and returns the
    // loop's result, the process exit status the program would end with.
    int run(AutoUpdater &updater, const std::function<void()> &whileRunning = {});
    void configure(AutoUpdater &updater);
    void serveAnswer(const QJsonObject &answer);
    QJsonObject answer(bool withPack, bool needPermit = false) const;
    QString savePath(const QString &name) const {
        return temp.path() + QLatin1Char('/') + QStringLiteral("qlln_%1_").arg(getuid()) + name;
    }
    QStringList handOff();
    static QProgressDialog *progressDialog();

    QTemporaryDir temp;
    QString record;
    FakeHttpServer *server = nullptr;
    QByteArray answerBody;
    QByteArray script;
    QByteArray pack;
};

void TestAutoUpdater::initTestCase() {
    StrTable::InitStrTable();
    script = recorderScript(QDir::tempPath() + QStringLiteral("/unused"));
    pack = QByteArray(300 * 1024, '\0');
    for (int i = 0; i < pack.size(); ++i)
        pack[i] = static_cast<char>((unsigned(i) * 7919u) >> 3);
}

void TestAutoUpdater::init() {
    QVERIFY(temp.isValid());
    record = temp.path() + QStringLiteral("/handoff.txt");
    script = recorderScript(record);
    server = new FakeHttpServer(this);
    QVERIFY(server->listen());
    server->setHandler([this](const HttpRequest &request) {
        if (request.path == QLatin1String("/update"))
            return HttpResponse::json(answerBody);
        if (request.path == QLatin1String("/updater.sh"))
            return HttpResponse::file(script).honourRange();
        if (request.path == QLatin1String("/pack.bin"))
            return HttpResponse::file(pack).honourRange();
        return HttpResponse::withStatus(404, "not here");
    });
}

void TestAutoUpdater::cleanup() {
    // A started updater runs on after its run ended (it is detached): let it
    // finish reading its script and writing its record before the files go.
    if (QFile::permissions(savePath(QStringLiteral("updater.sh"))) & QFileDevice::ExeOwner)
        if (!QTest::qWaitFor([this] { return QFile::exists(record); }, 10000))
            qWarning("the started updater wrote no record");
    delete server;
    server = nullptr;
    const QStringList leftovers =
        QDir(temp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System);
    for (const QString &name : leftovers) {
        const QString path = temp.path() + QLatin1Char('/') + name;
        if (QFileInfo(path).isDir() && !QFileInfo(path).isSymLink())
            QDir(path).removeRecursively();
        else
            QFile::remove(path);
    }
}

void TestAutoUpdater::configure(AutoUpdater &updater) {
    updater.setUpdateServerHost(server->url(QStringLiteral("/update")));
    updater.setCurrentClientVersion(4100);
    updater.setConnectedServerVersions({2, 5});
    updater.setTempPath(temp.path());
    updater.setRootPath(QStringLiteral("/opt/Quillon"));
    updater.setPortablePath(QStringLiteral("/home/user/.Quillon"));
    updater.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
}

void TestAutoUpdater::serveAnswer(const QJsonObject &object) {
    answerBody = QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QJsonObject TestAutoUpdater::answer(bool withPack, bool needPermit) const {
    QJsonObject result;
    result[QStringLiteral("updater")] = QJsonObject{
        {QStringLiteral("name"), QStringLiteral("updater.sh")},
        {QStringLiteral("url"), server->url(QStringLiteral("/updater.sh"))},
        {QStringLiteral("checksum"), md5(script)},
        {QStringLiteral("need_user_permit"), needPermit},
    };
    if (withPack) {
        result[QStringLiteral("update_pack")] = QJsonObject{
            {QStringLiteral("name"), QStringLiteral("pack.bin")},
            {QStringLiteral("url"), server->url(QStringLiteral("/pack.bin"))},
            {QStringLiteral("checksum"), md5(pack)},
        };
    }
    return result;
}

int TestAutoUpdater::run(AutoUpdater &updater, const std::function<void()> &whileRunning) {
    // A run that never ends is a failure of its own; the guard only makes it
    // visible as a result instead of a hung test.
    QTimer guard;
    guard.setSingleShot(true);
    connect(&guard, &QTimer::timeout, [] { QCoreApplication::exit(-99); });
    guard.start(60000);
    updater.update();
    if (whileRunning)
        QTimer::singleShot(0, whileRunning);
    return QCoreApplication::exec();
}

QStringList TestAutoUpdater::handOff() {
    // The updater is started detached; wait until it has written its record.
    if (!QTest::qWaitFor([this] { return QFile::exists(record); }, 10000))
        return QStringList(QStringLiteral("<no hand-off>"));
    const QByteArray raw = readFile(record);
    // Sized on purpose: the QByteArray overload would stop at the first NUL.
    QStringList fields = QString::fromUtf8(raw.constData(), raw.size()).split(QChar(0));
    fields.removeLast(); // after the final NUL
    return fields;
}

QProgressDialog *TestAutoUpdater::progressDialog() {
    const QWidgetList widgets = QApplication::topLevelWidgets();
    for (QWidget *w : widgets) {
        if (auto *dialog = qobject_cast<QProgressDialog *>(w))
            return dialog;
    }
    return nullptr;
}

void TestAutoUpdater::emptyAnswerEndsWithZero() {
    LogCapture log;
    serveAnswer(QJsonObject());
    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), 0);
    // The first query of a querier is sent twice; nothing is downloaded.
    QCOMPARE(server->requestCount(), 2);
    QVERIFY(log.messages(QStringLiteral("INFO"))
                .contains(QStringLiteral("Updater return empty response. No need to update.")));
    QVERIFY(
        log.messages(QStringLiteral("INFO")).contains(QStringLiteral("Auto updater finished.")));
    QVERIFY(QDir(temp.path()).entryList(QDir::Files).isEmpty());
}

// status: the exit status; logged: how the error line before the final one
// begins; reason: the reason the final line gives.
void TestAutoUpdater::failuresEndWithTheirCode_data() {
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("logged");
    QTest::addColumn<QString>("reason");

    const QString notJson = "Response is not in Json format.";
    const QString httpError = "Download failed since http error";
    QTest::newRow("answer not json") << "not json" << 4 << notJson << notJson;
    QTest::newRow("answer is an array") << "array" << 4 << notJson << notJson;
    QTest::newRow("answer without updater")
        << "no updater" << 4 << "Updater server provide invalid response."
        << "No updater information in response.";
    QTest::newRow("pack missing on the server")
        << "pack 404" << 3 << "Fail to download file. (code: 203, reason: HTTP error. "
        << httpError;
    QTest::newRow("updater fails on the server")
        << "updater 500" << 3 << "Fail to download file. (code: 401, reason: HTTP error. "
        << httpError;
    QTest::newRow("pack checksum wrong")
        << "pack checksum" << 6 << "Fail to download file. (reason: checksum not matched)"
        << "File checksum not matched";
}

void TestAutoUpdater::failuresEndWithTheirCode() {
    QFETCH(QString, fault);
    QFETCH(int, status);
    QFETCH(QString, logged);
    QFETCH(QString, reason);
    LogCapture log;
    QJsonObject object = answer(true);
    if (fault == QLatin1String("no updater")) {
        object.remove(QStringLiteral("updater"));
    } else if (fault == QLatin1String("pack 404")) {
        QJsonObject p = object.value(QStringLiteral("update_pack")).toObject();
        p[QStringLiteral("url")] = server->url(QStringLiteral("/missing.bin"));
        object[QStringLiteral("update_pack")] = p;
    } else if (fault == QLatin1String("updater 500")) {
        server->setHandler([this](const HttpRequest &request) {
            if (request.path == QLatin1String("/update"))
                return HttpResponse::json(answerBody);
            return HttpResponse::withStatus(500, "broken");
        });
    } else if (fault == QLatin1String("pack checksum")) {
        QJsonObject p = object.value(QStringLiteral("update_pack")).toObject();
        p[QStringLiteral("checksum")] = md5("something else");
        object[QStringLiteral("update_pack")] = p;
    }
    serveAnswer(object);
    if (fault == QLatin1String("not json"))
        answerBody = "<html>maintenance</html>";
    else if (fault == QLatin1String("array"))
        answerBody = "[]";

    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), status);
    const QStringList errors = log.messages(QStringLiteral("ERROR"));
    QVERIFY(errors.size() >= 2);
    QVERIFY2(errors.at(errors.size() - 2).startsWith(logged), qPrintable(errors.join('\n')));
    QCOMPARE(errors.last(), QStringLiteral("Fail to run auto update. (error code: %1, reason: %2)")
                                .arg(status)
                                .arg(reason));
    // A failed file never stays behind under its final name.
    if (status == 6)
        QVERIFY(!QFile::exists(savePath(QStringLiteral("pack.bin"))));
    QVERIFY(!QFile::exists(record));
}

void TestAutoUpdater::queryRetriesThenSucceeds() {
    LogCapture log;
    serveAnswer(QJsonObject());
    int silent = 10;
    server->setHandler([&](const HttpRequest &) {
        if (silent > 0) {
            --silent;
            return HttpResponse::silence();
        }
        return HttpResponse::json(answerBody);
    });
    AutoUpdater updater;
    configure(updater);
    // Ten stalls, each ended by the querier's time-out, then an answer.
    updater.findChild<UpdateQuerier *>()->setTimeout(150);
    QCOMPARE(run(updater), 0);
    QCOMPARE(log.messages(QStringLiteral("INFO"))
                 .filter(QStringLiteral("Query failed, try again. (code: 1, reason: Request "
                                        "failed since network error.)"))
                 .size(),
             10);
    QVERIFY(!log.text().contains(QStringLiteral("fallback")));
}

void TestAutoUpdater::queryGivesUpAfterElevenNetworkErrors() {
    LogCapture log;
    AutoUpdater updater;
    configure(updater);
    updater.setUpdateServerHost(QStringLiteral("http://127.0.0.1:%1/update").arg(closedPort()));
    QCOMPARE(run(updater), 1);
    QCOMPARE(log.messages(QStringLiteral("INFO")).filter(QStringLiteral("Query failed")).size(),
             10);
    QCOMPARE(log.messages(QStringLiteral("ERROR")).filter(QStringLiteral("Request failed.")).size(),
             11);
}

void TestAutoUpdater::failingProxyFallsBackToDirect() {
    LogCapture log;
    serveAnswer(answer(true));
    AutoUpdater updater;
    configure(updater);
    updater.setProxy(
        QNetworkProxy(QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"), closedPort()));
    QCOMPARE(run(updater), 0);

    const QStringList info = log.messages(QStringLiteral("INFO"));
    QCOMPARE(info.filter(QStringLiteral("Query failed, try again. (code: 2")).size(), 10);
    QCOMPARE(info.filter(QStringLiteral("Download failed, try again. (code: 2")).size(), 10);
    const QStringList errors = log.messages(QStringLiteral("ERROR"));
    QCOMPARE(
        errors.filter(QStringLiteral("Querier connect proxy failed, fallback to no proxy.")).size(),
        1);
    // The downloader falls back once, for the updater; the pack then goes
    // direct at once because the fall-back holds for the rest of the run.
    QCOMPARE(errors.filter(QStringLiteral("Downlaoder connect proxy failed, fallback to no proxy."))
                 .size(),
             1);
    QCOMPARE(readFile(savePath(QStringLiteral("pack.bin"))), pack);
    QCOMPARE(handOff().size(), 7);
}

void TestAutoUpdater::downloadRetriesAreCountedPerDownload() {
    LogCapture log;
    serveAnswer(answer(true));
    // Each file stalls nine times before it is served: 18 failures in all,
    // which only succeeds if each download starts a fresh count.
    int updaterStalls = 9;
    int packStalls = 9;
    server->setHandler([&](const HttpRequest &request) {
        if (request.path == QLatin1String("/update"))
            return HttpResponse::json(answerBody);
        int &stalls = request.path == QLatin1String("/pack.bin") ? packStalls : updaterStalls;
        if (stalls > 0) {
            --stalls;
            return HttpResponse::silence();
        }
        return HttpResponse::file(request.path == QLatin1String("/pack.bin") ? pack : script)
            .honourRange();
    });
    AutoUpdater updater;
    configure(updater);
    updater.findChild<UpdateDownloader *>()->setTimeout(150);
    QCOMPARE(run(updater), 0);
    QCOMPARE(log.messages(QStringLiteral("INFO")).filter(QStringLiteral("Download failed")).size(),
             18);
    QCOMPARE(readFile(savePath(QStringLiteral("pack.bin"))), pack);
}

void TestAutoUpdater::updaterAndPackAreHandedOver() {
    LogCapture log;
    serveAnswer(answer(true));
    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), 0);

    QCOMPARE(readFile(savePath(QStringLiteral("updater.sh"))), script);
    QCOMPARE(readFile(savePath(QStringLiteral("pack.bin"))), pack);
    // Without the dialog option no progress dialog is made.
    QVERIFY(!progressDialog());
    QVERIFY(QFile::permissions(savePath(QStringLiteral("updater.sh"))) & QFileDevice::ExeOwner);
    QVERIFY(!QFile::exists(savePath(QStringLiteral("pack.bin")) + QStringLiteral(".download")));
    QCOMPARE(
        handOff(),
        QStringList({QStringLiteral("/"), QStringLiteral("--root-path"),
                     QStringLiteral("/opt/Quillon"), QStringLiteral("--portable-path"),
                     QStringLiteral("/home/user/.Quillon"), QStringLiteral("--update-pack-path"),
                     savePath(QStringLiteral("pack.bin"))}));
    QCOMPARE(
        log.messages(QStringLiteral("INFO")),
        QStringList(
            {QStringLiteral("Start auto updater."), QStringLiteral("Start query update server."),
             QStringLiteral("Redirect to ") + server->url(QStringLiteral("/update")) +
                 QStringLiteral("?identify&type=updater&client=4100&server=2,5&os&"
                                "arch&osversion&installer"),
             QStringLiteral("Query update server done."), QStringLiteral("Start download updater."),
             QStringLiteral("Download updater done."),
             QStringLiteral("Updater requires update pack, download it."),
             QStringLiteral("Start download update pack."),
             QStringLiteral("Download update pack done."), QStringLiteral("Start running updater."),
             QStringLiteral("Auto updater finished.")}));
}

void TestAutoUpdater::handOffArguments_data() {
    QTest::addColumn<QJsonObject>("extra");
    QTest::addColumn<bool>("withPack");
    QTest::addColumn<QStringList>("tail");

    QTest::newRow("no pack, no extra") << QJsonObject() << false << QStringList();
    QTest::newRow("text and number")
        << QJsonObject{{QStringLiteral("updater_args"), QJsonArray{QStringLiteral("--silent"), 42}}}
        << false << QStringList({QStringLiteral("--silent"), QString()});
    const QStringList awkward = {
        "a b", "$(touch x); 'q'", "*", "it's \"quoted\"\nline two", "`id` $HOME \\ ;|&<>",
        "",    " lead and trail "};
    QTest::newRow("shell characters and quotes arrive byte for byte")
        << QJsonObject{{QStringLiteral("updater_args"), QJsonArray::fromStringList(awkward)}}
        << true << awkward;
    QTest::newRow("args inside the updater object are ignored")
        << QJsonObject{{QStringLiteral("updater"),
                        QJsonObject{{QStringLiteral("updater_args"),
                                     QJsonArray{QStringLiteral("--nope")}}}}}
        << false << QStringList();
}

void TestAutoUpdater::handOffArguments() {
    QFETCH(QJsonObject, extra);
    QFETCH(bool, withPack);
    QFETCH(QStringList, tail);
    QJsonObject object = answer(withPack);
    for (auto it = extra.begin(); it != extra.end(); ++it) {
        if (it.key() == QLatin1String("updater")) {
            QJsonObject u = object.value(QStringLiteral("updater")).toObject();
            const QJsonObject add = it.value().toObject();
            for (auto a = add.begin(); a != add.end(); ++a)
                u[a.key()] = a.value();
            object[QStringLiteral("updater")] = u;
        } else {
            object[it.key()] = it.value();
        }
    }
    serveAnswer(object);
    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), 0);

    QStringList expected({QStringLiteral("/"), QStringLiteral("--root-path"),
                          QStringLiteral("/opt/Quillon"), QStringLiteral("--portable-path"),
                          QStringLiteral("/home/user/.Quillon")});
    if (withPack)
        expected << QStringLiteral("--update-pack-path") << savePath(QStringLiteral("pack.bin"));
    expected << tail;
    QCOMPARE(handOff(), expected);
}

void TestAutoUpdater::unsafeAnswersAreRefused_data() {
    QTest::addColumn<QString>("file");  // "updater" or "update_pack"
    QTest::addColumn<QString>("field"); // "name" or "url"
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("reason");

    QTest::newRow("updater name climbs out") << "updater"
                                             << "name"
                                             << "../../.bashrc"
                                             << "updater name contains '/'";
    QTest::newRow("updater name empty") << "updater"
                                        << "name"
                                        << ""
                                        << "updater name is empty";
    QTest::newRow("updater name dot dot") << "updater"
                                          << "name"
                                          << ".."
                                          << "updater name is '..'";
    QTest::newRow("pack name with newline") << "update_pack"
                                            << "name"
                                            << "pack\n.bin"
                                            << "update pack name contains a control";
    QTest::newRow("pack name too long")
        << "update_pack"
        << "name" << QString(256, QLatin1Char('p')) << "update pack name is longer than 255 bytes";
    QTest::newRow("pack name same as updater") << "update_pack"
                                               << "name"
                                               << "updater.sh"
                                               << "updater and update pack have the same name";
    QTest::newRow("updater from a file url") << "updater"
                                             << "url"
                                             << "file:///bin/sh"
                                             << "updater url is not an http or https URL";
    QTest::newRow("pack from a resource") << "update_pack"
                                          << "url"
                                          << "qrc:/enu.qm"
                                          << "update pack url is not an http";
}

void TestAutoUpdater::unsafeAnswersAreRefused() {
    QFETCH(QString, file);
    QFETCH(QString, field);
    QFETCH(QString, value);
    QFETCH(QString, reason);
    LogCapture log;
    QJsonObject object = answer(true);
    QJsonObject entry = object.value(file).toObject();
    entry[field] = value;
    object[file] = entry;
    serveAnswer(object);

    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), 4);
    // Refused before any download request and before any file was made.
    QCOMPARE(server->requestCount(), 2);
    QVERIFY(QDir(temp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty());
    const QStringList errors = log.messages(QStringLiteral("ERROR"));
    QCOMPARE(errors.size(), 2);
    QVERIFY2(errors.first().startsWith(
                 QStringLiteral("Updater server provide unsafe response. (reason: ") + reason),
             qPrintable(errors.first()));
    QCOMPARE(errors.last(), QStringLiteral("Fail to run auto update. (error code: 4, reason: "
                                           "Unsafe update information in response.)"));
}

void TestAutoUpdater::matchingFilesAreReused() {
    LogCapture log;
    serveAnswer(answer(true));
    QVERIFY(writeFile(savePath(QStringLiteral("updater.sh")), script));
    QVERIFY(writeFile(savePath(QStringLiteral("pack.bin")), pack));
    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), 0);
    // Only the two query requests: neither file is fetched again.
    QCOMPARE(server->requestCount(), 2);
    const QStringList info = log.messages(QStringLiteral("INFO"));
    QVERIFY(info.contains(QStringLiteral("Updater file exists, use local file.")));
    QVERIFY(info.contains(QStringLiteral("Update pack file exists, use local file.")));
    QCOMPARE(handOff().size(), 7);
}

void TestAutoUpdater::untrustedFilesAreNotReused_data() {
    QTest::addColumn<QString>("plant");
    QTest::addColumn<int>("status");

    // Each of these holds exactly the pack's bytes, yet none was made by this
    // user alone, so none is used: a matching digest proves nothing when
    // someone else can change the file after it was checked.
    QTest::newRow("link to a matching file") << "symlink" << 0;
    QTest::newRow("group-writable file") << "group-writable" << 0;
    QTest::newRow("world-writable file") << "world-writable" << 0;
    QTest::newRow("file of another user") << "foreign" << 0;
    // A folder cannot be replaced by a file: the run fails instead.
    QTest::newRow("folder") << "folder" << 6;
}

void TestAutoUpdater::untrustedFilesAreNotReused() {
    QFETCH(QString, plant);
    QFETCH(int, status);
    LogCapture log;
    serveAnswer(answer(true));
    const QString target = savePath(QStringLiteral("pack.bin"));
    const QString elsewhere = temp.path() + QStringLiteral("/elsewhere.bin");
    if (plant == QLatin1String("symlink")) {
        QVERIFY(writeFile(elsewhere, pack));
        QVERIFY(QFile::link(elsewhere, target));
    } else if (plant == QLatin1String("folder")) {
        QVERIFY(QDir().mkpath(target + QStringLiteral("/inside")));
    } else {
        QVERIFY(writeFile(target, pack));
        if (plant == QLatin1String("group-writable"))
            QVERIFY(::chmod(QFile::encodeName(target).constData(), 0664) == 0);
        else if (plant == QLatin1String("world-writable"))
            QVERIFY(::chmod(QFile::encodeName(target).constData(), 0646) == 0);
        else if (::geteuid() != 0)
            QSKIP("giving a file to another user needs root");
        else
            QVERIFY(::chown(QFile::encodeName(target).constData(), 4242, 4242) == 0);
    }

    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), status);
    QVERIFY(log.messages(QStringLiteral("WARNING"))
                .contains(QStringLiteral("File '%1' is not a private file of this user, do not "
                                         "use it.")
                              .arg(target)));
    QVERIFY(!log.messages(QStringLiteral("INFO"))
                 .contains(QStringLiteral("Update pack file exists, use local file.")));
    // The pack was fetched again.
    QCOMPARE(server->requests().last().path, QStringLiteral("/pack.bin"));
    if (status == 0) {
        QFileInfo replaced(target);
        QVERIFY(replaced.isFile() && !replaced.isSymLink());
        QCOMPARE(replaced.ownerId(), uint(::getuid()));
        QCOMPARE(readFile(target), pack);
        if (plant == QLatin1String("symlink"))
            QCOMPARE(readFile(elsewhere), pack); // the link's target was not written through
    } else {
        QVERIFY(QFileInfo(target).isDir());
    }
}

void TestAutoUpdater::staleFileIsReplaced() {
    serveAnswer(answer(true));
    QVERIFY(writeFile(savePath(QStringLiteral("pack.bin")), "an older pack"));
    AutoUpdater updater;
    configure(updater);
    QCOMPARE(run(updater), 0);
    QCOMPARE(readFile(savePath(QStringLiteral("pack.bin"))), pack);
}

void TestAutoUpdater::progressDialogShowsThePackOnly() {
    serveAnswer(answer(true));
    AutoUpdater updater;
    configure(updater);
    updater.setShowDialogOption(true);

    bool dialogDuringUpdater = false;
    auto *downloader = updater.findChild<UpdateDownloader *>();
    // The dialog must not exist while the updater program itself downloads.
    connect(
        downloader, &UpdateDownloader::finished, this,
        [&] {
            if (downloader->getSavePath().endsWith(QLatin1String("updater.sh")))
                dialogDuringUpdater = progressDialog() != nullptr;
        },
        Qt::DirectConnection);
    QCOMPARE(run(updater), 0);
    QVERIFY(!dialogDuringUpdater);

    QProgressDialog *dialog = progressDialog();
    QVERIFY(dialog);
    QVERIFY(!dialog->isVisible()); // hidden when the run ended
    QCOMPARE(dialog->windowTitle(), QStringLiteral("Quillon"));
    QCOMPARE(dialog->labelText(), QStringLiteral("Completed"));
    QCOMPARE(dialog->value(), 100);
    QCOMPARE(dialog->maximum(), 100);
    QVERIFY(!dialog->autoReset());
    QCOMPARE(dialog->windowFlags() & ~Qt::Window, Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    QCOMPARE(dialog->windowModality(), Qt::WindowModal);
    QCOMPARE(dialog->font().family(), QStringLiteral("verdana"));
    QCOMPARE(dialog->width(), 400);
    QVERIFY(dialog->styleSheet().contains(QStringLiteral("font-size: 12px")));
    const QList<QPushButton *> buttons = dialog->findChildren<QPushButton *>();
    QCOMPARE(buttons.size(), 1);
    QCOMPARE(buttons.first()->text(), QStringLiteral("Cancel"));
}

void TestAutoUpdater::permissionIsAwaited_data() {
    QTest::addColumn<QString>("how");
    QTest::addColumn<bool>("handsOver");
    QTest::newRow("balloon clicked") << "balloon" << true;
    QTest::newRow("icon clicked") << "trigger" << true;
    QTest::newRow("icon double-clicked") << "double" << true;
    QTest::newRow("menu upgrade") << "upgrade" << true;
    QTest::newRow("menu exit") << "exit" << false;
}

void TestAutoUpdater::permissionIsAwaited() {
    QFETCH(QString, how);
    QFETCH(bool, handsOver);
    serveAnswer(answer(false, true));
    AutoUpdater updater;
    configure(updater);
    auto *tray = updater.findChild<QSystemTrayIcon *>();
    QVERIFY(tray);

    bool startedEarly = false;
    QString tooltip;
    QStringList menu;
    const int status = run(updater, [&] {
        // Wait for the permission branch to install its menu, then check that
        // nothing started and that clicks the design ignores change nothing.
        QTimer *poll = new QTimer(this);
        connect(poll, &QTimer::timeout, this, [&, poll] {
            if (!tray->contextMenu())
                return;
            poll->deleteLater();
            tooltip = tray->toolTip();
            for (QAction *a : tray->contextMenu()->actions())
                menu << a->text();
            emit tray->activated(QSystemTrayIcon::Context);
            emit tray->activated(QSystemTrayIcon::MiddleClick);
            emit tray->activated(QSystemTrayIcon::Unknown);
            QCoreApplication::processEvents();
            startedEarly = QFile::exists(record);
            if (how == QLatin1String("balloon"))
                emit tray->messageClicked();
            else if (how == QLatin1String("trigger"))
                emit tray->activated(QSystemTrayIcon::Trigger);
            else if (how == QLatin1String("double"))
                emit tray->activated(QSystemTrayIcon::DoubleClick);
            else if (how == QLatin1String("upgrade"))
                tray->contextMenu()->actions().first()->trigger();
            else
                tray->contextMenu()->actions().last()->trigger();
        });
        poll->start(20);
    });
    QCOMPARE(status, 0);
    QVERIFY(!startedEarly);
    QCOMPARE(tooltip,
             QStringLiteral("A new version of Quillon is available. Click here to update."));
    QCOMPARE(menu, QStringList({QStringLiteral("Upgrade"), QStringLiteral("Exit")}));
    if (handsOver) {
        QCOMPARE(handOff().size(), 5);
    } else {
        // The updater is in place for a later run, but nothing was started.
        QVERIFY(QFile::exists(savePath(QStringLiteral("updater.sh"))));
        QVERIFY(!QTest::qWaitFor([this] { return QFile::exists(record); }, 500));
    }
}

void TestAutoUpdater::trayIconFollowsTheStyle() {
    AutoUpdater updater;
    auto *tray = updater.findChild<QSystemTrayIcon *>();
    const QImage colour(QStringLiteral(":/images/normal/icon_upgrade.png"));
    const QImage blackAndWhite(QStringLiteral(":/images/win-linux-black/icon_upgrade.png"));
    QVERIFY(!colour.isNull() && !blackAndWhite.isNull());
    // Compared premultiplied, the form a pixmap holds its pixels in.
    auto same = [tray](const QImage &expected) {
        const QImage::Format f = QImage::Format_ARGB32_Premultiplied;
        return tray->icon().pixmap(expected.size()).toImage().convertToFormat(f) ==
               expected.convertToFormat(f);
    };
    QVERIFY(same(colour));
    updater.setBlackAndWhiteTrayIcon(true);
    QVERIFY(updater.IsBlackAndWhiteIcon());
    QVERIFY(same(blackAndWhite));
    QVERIFY(!same(colour));
    updater.setBlackAndWhiteTrayIcon(false);
    QVERIFY(same(colour));
}

void TestAutoUpdater::pathsDeriveFromTheExecutableFolder_data() {
    QTest::addColumn<QString>("exeDir");
    QTest::addColumn<QString>("resource");
    QTest::addColumn<QString>("data");
    QTest::addColumn<QString>("log");
    QTest::newRow("installed") << "/opt/app/bin"
                               << "/opt/app"
                               << "/opt/data"
                               << "/opt/log";
    QTest::newRow("dotted") << "/usr/local/Quillon/./x/../autoupdater/bin/"
                            << "/usr/local/Quillon/autoupdater"
                            << "/usr/local/Quillon/data"
                            << "/usr/local/Quillon/log";
}

void TestAutoUpdater::pathsDeriveFromTheExecutableFolder() {
    QFETCH(QString, exeDir);
    registerPaths(exeDir);
    UIPathManager *paths = UIPathManager::getInstance();
    QTEST(paths->getPath(QStringLiteral("resource_path")), "resource");
    QTEST(paths->getPath(QStringLiteral("user_data_path")), "data");
    QTEST(paths->getPath(QStringLiteral("log_path")), "log");
}

QTEST_MAIN(TestAutoUpdater)
#include "test_autoupdater.moc"
