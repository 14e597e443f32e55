// The checks an update answer must pass before the updater acts on it.

#include "update-info.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

class TestUpdateInfo : public QObject {
    Q_OBJECT

private slots:
    void fileNames_data();
    void fileNames();
    void urls_data();
    void urls();
    void answers_data();
    void answers();
};

void TestUpdateInfo::fileNames_data() {
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("plain");

    QTest::newRow("ordinary") << "quillon-updater" << true;
    QTest::newRow("with dots and blanks") << "Quillon 4.2 (x86).deb" << true;
    QTest::newRow("leading dot") << ".hidden" << true;
    QTest::newRow("three dots") << "..." << true;
    QTest::newRow("backslash is a character here") << "a\\b" << true;
    QTest::newRow("non-ASCII") << QString::fromUtf8("mise-à-jour-日本") << true;
    QTest::newRow("255 bytes") << QString(255, QLatin1Char('x')) << true;
    QTest::newRow("255 bytes of UTF-8") << QString(85, QChar(0x65e5)) << true;

    QTest::newRow("empty") << "" << false;
    QTest::newRow("dot") << "." << false;
    QTest::newRow("dot dot") << ".." << false;
    QTest::newRow("absolute path") << "/usr/bin/quillon" << false;
    QTest::newRow("climbs out") << "../../home/user/.bashrc" << false;
    QTest::newRow("sub folder") << "dir/file" << false;
    QTest::newRow("trailing slash") << "file/" << false;
    QTest::newRow("newline") << "file\nname" << false;
    QTest::newRow("tab") << "file\tname" << false;
    QTest::newRow("NUL") << QString::fromLatin1("file\0name", 9) << false;
    QTest::newRow("escape") << "file\x1b[31m" << false;
    QTest::newRow("delete") << "file\x7f" << false;
    QTest::newRow("C1 control") << QString::fromUtf8("file\xc2\x85") << false;
    QTest::newRow("256 bytes") << QString(256, QLatin1Char('x')) << false;
    QTest::newRow("258 bytes of UTF-8") << QString(86, QChar(0x65e5)) << false;
}

void TestUpdateInfo::fileNames() {
    QFETCH(QString, name);
    QFETCH(bool, plain);
    QString problem;
    QCOMPARE(UpdateInfo::isPlainFileName(name, &problem), plain);
    QCOMPARE(problem.isEmpty(), plain);
}

void TestUpdateInfo::urls_data() {
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("web");

    QTest::newRow("http") << "http://updates.example.org/u/file" << true;
    QTest::newRow("https with port and query") << "https://10.0.0.2:8443/f?a=1" << true;
    QTest::newRow("upper-case scheme") << "HTTPS://updates.example.org/f" << true;

    QTest::newRow("file") << "file:///etc/shadow" << false;
    QTest::newRow("qrc") << "qrc:/enu.qm" << false;
    QTest::newRow("resource") << ":/enu.qm" << false;
    QTest::newRow("ftp") << "ftp://updates.example.org/f" << false;
    QTest::newRow("data") << "data:text/plain;base64,SGVsbG8=" << false;
    QTest::newRow("relative") << "/u/file" << false;
    QTest::newRow("no host") << "http:///file" << false;
    QTest::newRow("empty") << "" << false;
}

void TestUpdateInfo::urls() {
    QFETCH(QString, url);
    QTEST(UpdateInfo::isWebUrl(url), "web");
}

void TestUpdateInfo::answers_data() {
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("problem"); // empty: acceptable; else a part of the problem text

    const QByteArray updater = R"("updater":{"name":"u","url":"http://h/u","checksum":""})";
    QTest::newRow("updater only") << "{" + updater + "}"
                                  << "";
    QTest::newRow("updater and pack")
        << "{" + updater + R"(,"update_pack":{"name":"p","url":"https://h/p"}})"
        << "";
    QTest::newRow("extra keys are fine") << "{" + updater + R"(,"updater_args":["a"],"news":1})"
                                         << "";

    QTest::newRow("updater not an object") << QByteArray(R"({"updater":"u"})") << "updater is not";
    QTest::newRow("updater without name")
        << QByteArray(R"({"updater":{"url":"http://h/u"}})") << "updater name is empty";
    QTest::newRow("updater name a number")
        << QByteArray(R"({"updater":{"name":7,"url":"http://h/u"}})") << "updater name is empty";
    QTest::newRow("updater path") << QByteArray(R"({"updater":{"name":"../u","url":"http://h/u"}})")
                                  << "updater name";
    QTest::newRow("updater file url")
        << QByteArray(R"({"updater":{"name":"u","url":"file:///bin/sh"}})") << "updater url";
    QTest::newRow("pack null") << "{" + updater + R"(,"update_pack":null})"
                               << "update pack is not";
    QTest::newRow("pack name with slash")
        << "{" + updater + R"(,"update_pack":{"name":"/tmp/x","url":"http://h/p"}})"
        << "update pack name";
    QTest::newRow("pack data url")
        << "{" + updater + R"(,"update_pack":{"name":"p","url":"data:,x"}})"
        << "update pack url";
    QTest::newRow("same names") << "{" + updater +
                                       R"(,"update_pack":{"name":"u","url":"http://h/p"}})"
                                << "same name";
}

void TestUpdateInfo::answers() {
    QFETCH(QByteArray, json);
    QFETCH(QString, problem);
    QJsonParseError parse;
    const QJsonObject answer = QJsonDocument::fromJson(json, &parse).object();
    QCOMPARE(parse.error, QJsonParseError::NoError);
    const QString found = UpdateInfo::findProblem(answer);
    if (problem.isEmpty())
        QVERIFY2(found.isEmpty(), qPrintable(found));
    else
        QVERIFY2(found.contains(problem), qPrintable(found));
}

QTEST_GUILESS_MAIN(TestUpdateInfo)
#include "test_update_info.moc"
