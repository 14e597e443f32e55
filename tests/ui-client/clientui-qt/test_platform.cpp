// The platform layer: single instances between real processes (copies of this
// test, see main()) and style sheets scaled to the screen density.
#include "dpiinfo.h"
#include "qtsingleapplication.h"

#include <QtTest>

#include <cstdio>

// The instances of one test, in directories of their own, ended with the test.
struct Instances : QObject {
    QTemporaryDir dir;
    QProcess *start(const QByteArray &message = {},
                    const QStringList &command = {QCoreApplication::applicationFilePath()}) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir.path());
        QProcess *process = new QProcess(this);
        process->setProcessEnvironment(env);
        process->start(command.first(), command.mid(1) + QStringList{"--instance"});
        process->write(message);
        process->closeWriteChannel();
        return process;
    }
    ~Instances() override {
        for (QProcess *process : findChildren<QProcess *>()) {
            process->kill();
            process->waitForFinished();
        }
    }
};

QByteArray line(QProcess *process) {
    while (!process->canReadLine() && process->waitForReadyRead(60000)) {
    }
    return process->readLine().trimmed();
}

class TestPlatform : public QObject {
    Q_OBJECT

private slots:
    // Instances started together race for the lock, and the losers send while
    // the winner may not be listening yet. Every round ends by SIGKILLing the
    // winner, so each later round starts over the socket file it left behind.
    void racingStartsElectOnePrimary() {
        // A line break, text outside Latin-1, more than one socket read holds.
        const QString text =
            QStringLiteral("Grüße\r\n日本語 ✓ ") + QString(60000, QLatin1Char('x'));
        Instances instances;
        for (int round = 0; round < 5; ++round) {
            QList<QProcess *> group;
            for (int i = 0; i < 3; ++i)
                group << instances.start((text + QString::number(i)).toUtf8());
            QProcess *primary = nullptr;
            QSet<QByteArray> sent, received;
            for (int i = 0; i < group.size(); ++i) {
                const QByteArray role = line(group[i]);
                if (role == "primary") {
                    QVERIFY2(!primary, "two primaries");
                    primary = group[i];
                } else {
                    QCOMPARE(role, QByteArray("sent 1"));
                    sent << (text + QString::number(i)).toUtf8().toPercentEncoding();
                }
            }
            QVERIFY2(primary, "no primary");
            for (int i = 0; i < sent.size(); ++i)
                received << line(primary);
            QCOMPARE(received, sent);

            primary->kill();
            QVERIFY(primary->waitForFinished());
            QCOMPARE(QDir(instances.dir.path()).entryList({"*.socket"}, QDir::System).size(), 1);
        }
    }

    // How a second instance starts while a first one runs; each is primary.
    void identity_data() {
        const QString self = QCoreApplication::applicationFilePath();
        QTest::addColumn<QStringList>("command");
        QTest::newRow("other application name") << QStringList{self, "--name"};
        QTest::newRow("same program installed elsewhere") << QStringList{"copy"};
    }
    void identity() {
        QFETCH(QStringList, command);
        Instances instances;
        if (command.first() == "copy") {
            command = QStringList{instances.dir.filePath(QStringLiteral("test_platform"))};
            QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), command.first()));
        }
        QCOMPARE(line(instances.start()), QByteArray("primary"));
        QCOMPARE(line(instances.start({}, command)), QByteArray("primary"));
    }

    // The factor goes in quarter steps and never below 1; the screen of this
    // test reports 190 DPI (see main()), which is 200 %.
    void scaleStyleSheet_data() {
        QTest::addColumn<qreal>("dpi");
        QTest::addColumn<QString>("sheet");
        QTest::addColumn<QString>("expected");
        QTest::newRow("this screen") << 0.0 << "margin: 12px"
                                     << "margin: 24px";
        QTest::newRow("low density") << 72.0 << "margin: 12px"
                                     << "margin: 12px";
        QTest::newRow("lengths") << 144.0 << "margin: 1px -2px .5px; QLabel{font-size:12PX}"
                                 << "margin: 1.5px -3px 0.75px; QLabel{font-size:18PX}";
        const QString others = R"(#t12px { font: 9pt "A 12px"; image: url(:/12px.png) } /* 1px */)";
        QTest::newRow("nothing else") << 144.0 << others << others;
    }
    void scaleStyleSheet() {
        QFETCH(qreal, dpi);
        QFETCH(QString, sheet);
        QFETCH(QString, expected);
        QCOMPARE(dpi ? DPIinfo::scaleStyleSheet(sheet, DPIinfo::scaleFactorForLogicalDpi(dpi))
                     : DPIinfo::getInstance()->getScaledStyleSheet(sheet),
                 expected);
    }
};

int main(int argc, char **argv) {
    if (QByteArray(argv[argc - 1]) != "--instance") {
        qputenv("QT_FONT_DPI", "190"); // what the offscreen screen then reports
        QGuiApplication app(argc, argv);
        TestPlatform test;
        return QTest::qExec(&test, argc, argv);
    }
    // An instance: it reads its message before it starts, then prints "sent 1"
    // (or 0), or "primary" and every message it receives, percent-encoded.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    QFile in;
    const QByteArray message = in.open(stdin, QIODevice::ReadOnly) ? in.readAll() : QByteArray();
    if (argc == 3) // --name
        QCoreApplication::setApplicationName(QStringLiteral("other"));
    QtSingleApplication app(argc, argv);
    if (app.isRunning()) {
        std::printf("sent %d\n", app.sendMessage(QString::fromUtf8(message)));
        return 0;
    }
    std::printf("primary\n");
    QObject::connect(&app, &QtSingleApplication::messageReceived, [](const QString &m) {
        std::printf("%s\n", m.toUtf8().toPercentEncoding().constData());
    });
    QTimer::singleShot(120000, &app, &QCoreApplication::quit); // outlives no test run
    return app.exec();
}

#include "test_platform.moc"
