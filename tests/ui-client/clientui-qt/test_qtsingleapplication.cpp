// Single-instance behaviour between real processes: every instance is a
// singleapp_probe process, isolated from any other run through its own
// XDG_RUNTIME_DIR and TMPDIR.
#include "probe_environment.h"

#include <QDir>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QSet>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <fcntl.h>
#include <memory>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int WAIT_MS = 60000;

QString probePath() {
    return QStringLiteral(SINGLEAPP_PROBE);
}

QByteArray encode(const QString &message) {
    return message.toUtf8().toPercentEncoding();
}

QByteArray frame(quint32 size, const QByteArray &payload) {
    QByteArray bytes(4, '\0');
    qToBigEndian<quint32>(size, bytes.data());
    return bytes + payload;
}

// Closes a descriptor however the test ends, so a held lock never outlives it.
struct FileDescriptor {
    explicit FileDescriptor(int value) : fd(value) {}
    ~FileDescriptor() { close(); }
    void close() {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
    int fd;
};

mode_t modeOf(const QString &path) {
    struct stat st;
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return 0;
    return st.st_mode;
}

// The local sockets in a directory.
QStringList socketsIn(const QString &dir) {
    QStringList sockets;
    const QStringList names =
        QDir(dir).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const QString path = dir + QLatin1Char('/') + name;
        if (S_ISSOCK(modeOf(path)))
            sockets << path;
    }
    return sockets;
}

} // namespace

class TestQtSingleApplication : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void laterInstancesDeliverWholeMessages();
    void simultaneousStartsElectExactlyOnePrimary();
    void killedPrimaryDoesNotBlockTheNextStart();
    void detachedChildDoesNotKeepTheInstance();
    void identityIsPerApplication_data();
    void identityIsPerApplication();
    void sendFailsWhenNoInstanceAnswers_data();
    void sendFailsWhenNoInstanceAnswers();
    void senderWaitsWhileTheInstanceHoldsTheLock_data();
    void senderWaitsWhileTheInstanceHoldsTheLock();
    void lockAndSocketStayPrivate_data();
    void lockAndSocketStayPrivate();
    void misbehavingSendersDoNotStopTheService();

private:
    QProcess *startProbe(const QStringList &args, const QString &program = probePath(),
                         QProcess::ProcessChannelMode mode = QProcess::ForwardedErrorChannel);
    QByteArray nextLine(QProcess *process);
    void send(const QString &encoded, const QStringList &identity = {},
              const QString &program = probePath());
    void stopPrimary(QProcess *primary, const QStringList &identity = {},
                     const QString &program = probePath());
    void expectExit(QProcess *process, int status);
    QString fallbackDir() const {
        return tmp_dir->path() + QStringLiteral("/qtsingleapp-") + QString::number(::getuid());
    }

    std::unique_ptr<QTemporaryDir> runtime_dir;
    std::unique_ptr<QTemporaryDir> tmp_dir;
    QProcessEnvironment env;
    QList<QProcess *> processes;
    QList<qint64> detached_children;
};

void TestQtSingleApplication::init() {
    runtime_dir.reset(new QTemporaryDir);
    tmp_dir.reset(new QTemporaryDir);
    QVERIFY(runtime_dir->isValid());
    QVERIFY(tmp_dir->isValid());
    QCOMPARE(modeOf(runtime_dir->path()) & 0777, mode_t(0700));
    env = probeEnvironment();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime_dir->path());
    env.insert(QStringLiteral("TMPDIR"), tmp_dir->path());
}

void TestQtSingleApplication::cleanup() {
    for (QProcess *process : qAsConst(processes)) {
        if (process->state() != QProcess::NotRunning) {
            ::kill(pid_t(process->processId()), SIGCONT);
            process->kill();
            process->waitForFinished(WAIT_MS);
        }
        delete process;
    }
    processes.clear();
    for (qint64 pid : qAsConst(detached_children))
        ::kill(pid_t(pid), SIGKILL);
    detached_children.clear();
    runtime_dir.reset();
    tmp_dir.reset();
}

QProcess *TestQtSingleApplication::startProbe(const QStringList &args, const QString &program,
                                              QProcess::ProcessChannelMode mode) {
    QProcess *process = new QProcess;
    processes << process;
    process->setProcessEnvironment(env);
    process->setProcessChannelMode(mode);
    process->start(program, args);
    return process;
}

QByteArray TestQtSingleApplication::nextLine(QProcess *process) {
    while (!process->canReadLine()) {
        if (!process->waitForReadyRead(WAIT_MS))
            return QByteArray("<no line: ") + process->errorString().toUtf8() + '>';
    }
    return process->readLine().chopped(1);
}

void TestQtSingleApplication::expectExit(QProcess *process, int status) {
    if (process->state() != QProcess::NotRunning)
        QVERIFY(process->waitForFinished(WAIT_MS));
    QCOMPARE(process->exitStatus(), QProcess::NormalExit);
    QCOMPARE(process->exitCode(), status);
}

// Sends a (percent-encoded) message from a new instance, which must find the
// running one and have it accept the message.
void TestQtSingleApplication::send(const QString &encoded, const QStringList &identity,
                                   const QString &program) {
    QProcess *sender = startProbe(identity + QStringList{"--send", encoded}, program);
    QCOMPARE(nextLine(sender), QByteArray("secondary"));
    QCOMPARE(nextLine(sender), QByteArray("sent 1"));
    expectExit(sender, 0);
}

void TestQtSingleApplication::stopPrimary(QProcess *primary, const QStringList &identity,
                                          const QString &program) {
    if (QTest::currentTestFailed())
        return;
    send(QStringLiteral("stop"), identity, program);
    QCOMPARE(nextLine(primary), QByteArray("message stop"));
    expectExit(primary, 0);
}

void TestQtSingleApplication::laterInstancesDeliverWholeMessages() {
    QProcess *primary = startProbe({});
    QCOMPARE(nextLine(primary), QByteArray("primary"));

    // One running instance serves any number of later ones, one after the
    // other, and every message arrives exactly as it was sent.
    const QStringList messages = {
        QStringLiteral("hello"),
        QStringLiteral("Grüße aus Köln\n日本語のテキスト\r\nend – ✓"),
        QString(),
        QString(60000, QLatin1Char('x')) + QStringLiteral("ü"),
    };
    for (const QString &message : messages) {
        send(QString::fromLatin1(encode(message)));
        QCOMPARE(nextLine(primary), "message " + encode(message));
    }
    QCOMPARE(primary->state(), QProcess::Running);

    stopPrimary(primary);
    // A clean end takes the socket with it.
    QCOMPARE(socketsIn(runtime_dir->path()), QStringList());
}

void TestQtSingleApplication::simultaneousStartsElectExactlyOnePrimary() {
    for (int round = 0; round < 6; ++round) {
        // The probes wait on their standard input, so they can be released
        // together: they then race for the lock, and the losers send while
        // the winner may not be listening yet.
        QList<QProcess *> group;
        for (int i = 0; i < 3; ++i) {
            group << startProbe({"--go-on-stdin", "--send", QStringLiteral("m%1").arg(i)});
            QVERIFY(group.last()->waitForStarted(WAIT_MS));
        }
        for (QProcess *process : qAsConst(group))
            process->write("go\n");

        QProcess *primary = nullptr;
        QSet<QByteArray> expected;
        for (int i = 0; i < group.size(); ++i) {
            const QByteArray role = nextLine(group[i]);
            if (role == "primary") {
                QVERIFY2(!primary,
                         qPrintable(QStringLiteral("two primaries in round %1").arg(round)));
                primary = group[i];
            } else {
                QCOMPARE(role, QByteArray("secondary"));
                QCOMPARE(nextLine(group[i]), QByteArray("sent 1"));
                expected << "message m" + QByteArray::number(i);
            }
        }
        QVERIFY2(primary, qPrintable(QStringLiteral("no primary in round %1").arg(round)));

        QSet<QByteArray> received;
        while (received.size() < expected.size())
            received << nextLine(primary);
        QCOMPARE(received, expected);
        stopPrimary(primary);
        for (QProcess *process : qAsConst(group))
            expectExit(process, 0);
        if (QTest::currentTestFailed())
            return;
    }
}

void TestQtSingleApplication::killedPrimaryDoesNotBlockTheNextStart() {
    QProcess *first = startProbe({});
    QCOMPARE(nextLine(first), QByteArray("primary"));
    first->kill();
    QVERIFY(first->waitForFinished(WAIT_MS));
    QCOMPARE(first->exitStatus(), QProcess::CrashExit);
    // What SIGKILL leaves behind: the socket file nobody serves any more.
    QCOMPARE(socketsIn(runtime_dir->path()).size(), 1);

    QProcess *next = startProbe({});
    QCOMPARE(nextLine(next), QByteArray("primary"));
    send(QStringLiteral("after%20the%20crash"));
    QCOMPARE(nextLine(next), QByteArray("message after%20the%20crash"));
    stopPrimary(next);
}

void TestQtSingleApplication::detachedChildDoesNotKeepTheInstance() {
    // The updater starts another program detached and ends; that program must
    // not hold on to the running-instance lock.
    QProcess *primary = startProbe({"--spawn-detached"});
    QCOMPARE(nextLine(primary), QByteArray("primary"));
    const QByteArray child = nextLine(primary);
    QVERIFY2(child.startsWith("child "), child.constData());
    const qint64 child_pid = child.mid(6).toLongLong();
    QVERIFY(child_pid > 0);
    detached_children << child_pid;
    stopPrimary(primary);
    QCOMPARE(::kill(pid_t(child_pid), 0), 0);

    QProcess *next = startProbe({});
    QCOMPARE(nextLine(next), QByteArray("primary"));
    stopPrimary(next);
}

void TestQtSingleApplication::identityIsPerApplication_data() {
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("copyExecutable");
    QTest::addColumn<QByteArray>("role");

    QTest::newRow("other application name")
        << QStringList{"--app-name", "otherapp"} << false << QByteArray("primary");
    QTest::newRow("same program elsewhere") << QStringList{} << true << QByteArray("primary");
    // The default name is the executable's: naming it explicitly changes nothing.
    QTest::newRow("same name set explicitly")
        << QStringList{"--app-name", QFileInfo(probePath()).fileName()} << false
        << QByteArray("secondary");
}

void TestQtSingleApplication::identityIsPerApplication() {
    QFETCH(QStringList, args);
    QFETCH(bool, copyExecutable);
    QFETCH(QByteArray, role);

    QString program = probePath();
    if (copyExecutable) {
        program = tmp_dir->filePath(QStringLiteral("copy/") + QFileInfo(program).fileName());
        QVERIFY(QDir(tmp_dir->path()).mkpath(QStringLiteral("copy")));
        QVERIFY(QFile::copy(probePath(), program));
    }

    QProcess *primary = startProbe({});
    QCOMPARE(nextLine(primary), QByteArray("primary"));
    QProcess *other = startProbe(args, program);
    QCOMPARE(nextLine(other), role);
    if (role == "secondary") {
        expectExit(other, 0);
        stopPrimary(primary);
        return;
    }

    // Both serve, each only its own application.
    send(QStringLiteral("for%20the%20first"));
    QCOMPARE(nextLine(primary), QByteArray("message for%20the%20first"));
    stopPrimary(other, args, program);
    stopPrimary(primary);
}

void TestQtSingleApplication::sendFailsWhenNoInstanceAnswers_data() {
    QTest::addColumn<bool>("frozenPrimary");
    QTest::newRow("no other instance") << false;
    QTest::newRow("other instance does not answer") << true;
}

void TestQtSingleApplication::sendFailsWhenNoInstanceAnswers() {
    QFETCH(bool, frozenPrimary);

    QByteArray role("primary");
    if (frozenPrimary) {
        QProcess *primary = startProbe({});
        QCOMPARE(nextLine(primary), QByteArray("primary"));
        QCOMPARE(::kill(pid_t(primary->processId()), SIGSTOP), 0);
        role = "secondary";
    }
    // The probes' own time limit is far below WAIT_MS: a sender that ignores
    // its time-out never reports.
    QProcess *sender = startProbe({"--send", "anyone", "--send-anyway", "--timeout", "1000"});
    QCOMPARE(nextLine(sender), role);
    QCOMPARE(nextLine(sender), QByteArray("sent 0"));
    expectExit(sender, 0);
}

void TestQtSingleApplication::senderWaitsWhileTheInstanceHoldsTheLock_data() {
    QTest::addColumn<bool>("startsListening");
    QTest::addColumn<QByteArray>("result");

    QTest::newRow("instance starts listening late") << true << QByteArray("sent 1");
    QTest::newRow("instance ends without listening") << false << QByteArray("sent 0");
}

// The test plays a running instance caught between taking the lock and
// listening (it is starting up, or shutting down). A sender without a time
// limit must neither give up at once nor wait forever.
void TestQtSingleApplication::senderWaitsWhileTheInstanceHoldsTheLock() {
    QFETCH(bool, startsListening);
    QFETCH(QByteArray, result);

    // A first run leaves its lock file behind and tells the socket's name.
    QProcess *first = startProbe({});
    QCOMPARE(nextLine(first), QByteArray("primary"));
    const QStringList sockets = socketsIn(runtime_dir->path());
    QCOMPARE(sockets.size(), 1);
    const QString socket_path = sockets.first();
    stopPrimary(first);
    const QString lock_path =
        socket_path.left(socket_path.lastIndexOf(QLatin1Char('.'))) + QStringLiteral(".lock");
    QVERIFY(QFile::exists(lock_path));

    FileDescriptor lock(::open(QFile::encodeName(lock_path).constData(), O_RDWR | O_CLOEXEC));
    QVERIFY(lock.fd >= 0);
    QCOMPARE(::flock(lock.fd, LOCK_EX | LOCK_NB), 0);

    // The sender's debug output shows when its first attempt has failed.
    env.insert(QStringLiteral("QT_LOGGING_RULES"),
               QStringLiteral("qtsingleapplication.debug=true"));
    QProcess *sender =
        startProbe({"--send", "early", "--timeout", "-1"}, probePath(), QProcess::SeparateChannels);
    QCOMPARE(nextLine(sender), QByteArray("secondary"));
    sender->setReadChannel(QProcess::StandardError);
    QByteArray diagnostics = sender->readAll();
    while (!diagnostics.contains("retrying")) {
        QVERIFY2(sender->waitForReadyRead(WAIT_MS), diagnostics.constData());
        diagnostics += sender->readAll();
    }
    sender->setReadChannel(QProcess::StandardOutput);
    if (!startsListening) {
        lock.close();
        QCOMPARE(nextLine(sender), result);
        expectExit(sender, 0);
        return;
    }

    QLocalServer server;
    QVERIFY(server.listen(socket_path));
    if (!server.hasPendingConnections())
        QVERIFY(server.waitForNewConnection(WAIT_MS));
    std::unique_ptr<QLocalSocket> connection(server.nextPendingConnection());
    const QByteArray expected = frame(5, "early");
    while (connection->bytesAvailable() < expected.size())
        QVERIFY(connection->waitForReadyRead(WAIT_MS));
    QCOMPARE(connection->readAll(), expected);
    connection->write("\x06");
    QVERIFY(connection->waitForBytesWritten(WAIT_MS));
    QCOMPARE(nextLine(sender), result);
    expectExit(sender, 0);
}

void TestQtSingleApplication::lockAndSocketStayPrivate_data() {
    QTest::addColumn<QString>("runtimeDir");
    QTest::addColumn<bool>("looseFallbackExists");
    QTest::addColumn<bool>("inRuntimeDir");

    QTest::newRow("private runtime dir") << "private" << false << true;
    QTest::newRow("no runtime dir") << "unset" << false << false;
    QTest::newRow("shared runtime dir") << "shared" << false << false;
    QTest::newRow("loose fallback dir") << "unset" << true << false;
}

void TestQtSingleApplication::lockAndSocketStayPrivate() {
    QFETCH(QString, runtimeDir);
    QFETCH(bool, looseFallbackExists);
    QFETCH(bool, inRuntimeDir);

    if (runtimeDir == "unset")
        env.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    else if (runtimeDir == "shared")
        QCOMPARE(::chmod(QFile::encodeName(runtime_dir->path()).constData(), 01777), 0);
    if (looseFallbackExists) {
        QVERIFY(QDir().mkdir(fallbackDir()));
        QCOMPARE(::chmod(QFile::encodeName(fallbackDir()).constData(), 0777), 0);
    }

    QProcess *primary = startProbe({});
    QCOMPARE(nextLine(primary), QByteArray("primary"));

    const QString used = inRuntimeDir ? runtime_dir->path() : fallbackDir();
    const QString unused = inRuntimeDir ? fallbackDir() : runtime_dir->path();
    QCOMPARE(socketsIn(used).size(), 1);
    QCOMPARE(socketsIn(unused), QStringList());
    QVERIFY(S_ISDIR(modeOf(used)));
    QCOMPARE(modeOf(used) & 077, mode_t(0));
    const QStringList locks = QDir(used).entryList({"*.lock"}, QDir::Files);
    QCOMPARE(locks.size(), 1);
    QCOMPARE(modeOf(used + QLatin1Char('/') + locks.first()) & 077, mode_t(0));

    // Both instances must agree on the place: the second one finds the first.
    stopPrimary(primary);
}

void TestQtSingleApplication::misbehavingSendersDoNotStopTheService() {
    QProcess *primary = startProbe({});
    QCOMPARE(nextLine(primary), QByteArray("primary"));
    const QStringList sockets = socketsIn(runtime_dir->path());
    QCOMPARE(sockets.size(), 1);

    // One connects and says nothing, one stops half-way through a message,
    // one announces a message of 4 GiB.
    QLocalSocket silent;
    silent.connectToServer(sockets.first());
    QVERIFY(silent.waitForConnected(WAIT_MS));

    const QByteArray slow_message = frame(12, "slow message");
    QLocalSocket slow;
    slow.connectToServer(sockets.first());
    QVERIFY(slow.waitForConnected(WAIT_MS));
    slow.write(slow_message.left(7));
    QVERIFY(slow.waitForBytesWritten(WAIT_MS));

    QLocalSocket liar;
    liar.connectToServer(sockets.first());
    QVERIFY(liar.waitForConnected(WAIT_MS));
    QSignalSpy dropped(&liar, &QLocalSocket::disconnected);
    liar.write(frame(0xffffffffu, "x"));
    QVERIFY(liar.waitForBytesWritten(WAIT_MS));
    QVERIFY(dropped.wait(WAIT_MS));

    send(QStringLiteral("still%20served"));
    QCOMPARE(nextLine(primary), QByteArray("message still%20served"));

    // The rest of the half-sent message completes it.
    slow.write(slow_message.mid(7));
    QVERIFY(slow.waitForBytesWritten(WAIT_MS));
    QCOMPARE(nextLine(primary), QByteArray("message slow%20message"));
    QTRY_COMPARE_WITH_TIMEOUT(slow.bytesAvailable(), qint64(1), WAIT_MS);
    QCOMPARE(slow.read(1), QByteArray("\x06"));

    stopPrimary(primary);
}

QTEST_GUILESS_MAIN(TestQtSingleApplication)
#include "test_qtsingleapplication.moc"
