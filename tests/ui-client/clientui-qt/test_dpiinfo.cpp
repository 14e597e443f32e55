#include "dpiinfo.h"
#include "probe_environment.h"

#include <QProcess>
#include <QtTest>

class TestDPIinfo : public QObject {
    Q_OBJECT

private slots:
    void scaleStyleSheet_data();
    void scaleStyleSheet();
    void scaleFactorForLogicalDpi_data();
    void scaleFactorForLogicalDpi();
    void getDPIFollowsTheScreen_data();
    void getDPIFollowsTheScreen();
};

void TestDPIinfo::scaleStyleSheet_data() {
    QTest::addColumn<QString>("sheet");
    QTest::addColumn<qreal>("factor");
    QTest::addColumn<QString>("expected");

    const QString dialog = QStringLiteral("QProgressDialog { \n  background-color: whitesmoke; \n"
                                          "  vertical-align: middle; \n} \n"
                                          "QProgressDialog QLabel { \n  color: #505A64; \n"
                                          "  font-size: 12px \n}");
    QTest::newRow("factor 1 leaves the sheet as written")
        << QStringLiteral("a { font-size: 12.0px; margin: 012px; border: .5px }") << 1.0
        << QStringLiteral("a { font-size: 12.0px; margin: 012px; border: .5px }");
    QTest::newRow("progress dialog sheet at factor 2")
        << dialog << 2.0 << QString(dialog).replace(QStringLiteral("12px"), QStringLiteral("24px"));
    QTest::newRow("decimals") << QStringLiteral("border: 1.5px; margin: .5px; padding: 2.25px")
                              << 2.0 << QStringLiteral("border: 3px; margin: 1px; padding: 4.5px");
    QTest::newRow("several sizes in one declaration")
        << QStringLiteral("margin: 1px 2px 3px 4px;") << 1.5
        << QStringLiteral("margin: 1.5px 3px 4.5px 6px;");
    QTest::newRow("negative") << QStringLiteral("margin-top: -2px") << 2.0
                              << QStringLiteral("margin-top: -4px");
    QTest::newRow("no space before the unit, upper case unit")
        << QStringLiteral("QLabel{font-size:12PX}") << 2.0
        << QStringLiteral("QLabel{font-size:24PX}");
    QTest::newRow("numbers without px stay")
        << QStringLiteral("color: #505A64; font-size: 10pt; width: 50%; opacity: 2; "
                          "color: rgb(12, 34, 56); line-height: 1.5em")
        << 2.0
        << QStringLiteral("color: #505A64; font-size: 10pt; width: 50%; opacity: 2; "
                          "color: rgb(12, 34, 56); line-height: 1.5em");
    QTest::newRow("digits ending a name stay")
        << QStringLiteral("QLabel#title12px { min-width: 12px }") << 2.0
        << QStringLiteral("QLabel#title12px { min-width: 24px }");
    QTest::newRow("strings, urls and comments stay")
        << QStringLiteral("image: url(:/images/arrow_12px.png); /* was 10px */ "
                          "font-family: \"Sans 12px\"; height: 12px")
        << 2.0
        << QStringLiteral("image: url(:/images/arrow_12px.png); /* was 10px */ "
                          "font-family: \"Sans 12px\"; height: 24px");
    QTest::newRow("meaningless factor")
        << QStringLiteral("height: 12px") << 0.0 << QStringLiteral("height: 12px");
}

void TestDPIinfo::scaleStyleSheet() {
    QFETCH(QString, sheet);
    QFETCH(qreal, factor);
    QFETCH(QString, expected);
    QCOMPARE(DPIinfo::scaleStyleSheet(sheet, factor), expected);
}

void TestDPIinfo::scaleFactorForLogicalDpi_data() {
    QTest::addColumn<qreal>("dpi");
    QTest::addColumn<qreal>("factor");

    QTest::newRow("standard density") << 96.0 << 1.0;
    QTest::newRow("a little off standard") << 100.0 << 1.0;
    QTest::newRow("125 %") << 120.0 << 1.25;
    QTest::newRow("a little off 200 %") << 190.0 << 2.0;
    QTest::newRow("below standard never shrinks") << 72.0 << 1.0;
    QTest::newRow("nothing reported") << 0.0 << 1.0;
    QTest::newRow("nonsense") << qQNaN() << 1.0;
}

void TestDPIinfo::scaleFactorForLogicalDpi() {
    QFETCH(qreal, dpi);
    QFETCH(qreal, factor);
    QCOMPARE(DPIinfo::scaleFactorForLogicalDpi(dpi), factor);
}

void TestDPIinfo::getDPIFollowsTheScreen_data() {
    QTest::addColumn<QString>("application");
    QTest::addColumn<QStringList>("environment");
    QTest::addColumn<QByteArray>("dpi");
    QTest::addColumn<QByteArray>("sheet");

    // The offscreen platform reports 100 logical DPI unless QT_FONT_DPI says
    // otherwise, much like an X server without a configured density.
    QTest::newRow("before any application") << "none" << QStringList{"QT_FONT_DPI=192"}
                                            << QByteArray("1") << QByteArray("font-size: 12px");
    QTest::newRow("without a GUI application") << "core" << QStringList{"QT_FONT_DPI=192"}
                                               << QByteArray("1") << QByteArray("font-size: 12px");
    QTest::newRow("standard screen")
        << "gui" << QStringList{} << QByteArray("1") << QByteArray("font-size: 12px");
    QTest::newRow("192 DPI") << "gui" << QStringList{"QT_FONT_DPI=192"} << QByteArray("2")
                             << QByteArray("font-size: 24px");
    // Qt itself scales every device-independent pixel here; a second factor
    // on top would make the dialog four times as large.
    QTest::newRow("Qt scale factor 2") << "gui" << QStringList{"QT_SCALE_FACTOR=2"}
                                       << QByteArray("1") << QByteArray("font-size: 12px");
    QTest::newRow("Qt high-DPI scaling of a 192 DPI screen")
        << "gui" << QStringList{"QT_ENABLE_HIGHDPI_SCALING=1", "QT_FONT_DPI=192"} << QByteArray("1")
        << QByteArray("font-size: 12px");
}

void TestDPIinfo::getDPIFollowsTheScreen() {
    QFETCH(QString, application);
    QFETCH(QStringList, environment);
    QFETCH(QByteArray, dpi);
    QFETCH(QByteArray, sheet);

    QProcessEnvironment env = probeEnvironment();
    for (const char *name : {"QT_FONT_DPI", "QT_SCALE_FACTOR", "QT_SCREEN_SCALE_FACTORS",
                             "QT_ENABLE_HIGHDPI_SCALING", "QT_AUTO_SCREEN_SCALE_FACTOR"})
        env.remove(QString::fromLatin1(name));
    for (const QString &assignment : environment)
        env.insert(assignment.section(QLatin1Char('='), 0, 0),
                   assignment.section(QLatin1Char('='), 1));

    QProcess probe;
    probe.setProcessEnvironment(env);
    probe.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    probe.start(QStringLiteral(DPIINFO_PROBE), {application});
    QVERIFY2(probe.waitForFinished(60000), qPrintable(probe.errorString()));
    QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
    QCOMPARE(probe.exitCode(), 0);
    const QList<QByteArray> lines = probe.readAllStandardOutput().trimmed().split('\n');
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines.at(0), "dpi " + dpi);
    QCOMPARE(lines.at(1), "sheet " + sheet);
}

QTEST_GUILESS_MAIN(TestDPIinfo)
#include "test_dpiinfo.moc"
