// The updater's texts: the language chosen from the system locale, the string
// table, and the catalogues and icons built into the program.
#include <QApplication>
#include <QImage>
#include <QtTest>

#include "app-setup.h"
#include "tesslocale.h"
#include "texts/strtab.h"

class TestTexts : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { StrTable::InitStrTable(); }

    // French, German and Spanish map to fra, deu and esn, while their
    // catalogues are built in as fre, ger and spn: those systems get English.
    void languageFromLocale_data() {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QString>("catalogue");
        for (const char *row : {"zh_TW cht", "zh_CN chs", "pt_PT ptg", "pt_BR ptb", "nb_NO nor",
                                "nn_NO nor", "fr_FR enu", "de_DE enu", "es_ES enu", "el_GR enu"})
            QTest::newRow(row) << QString(row).section(' ', 0, 0) + ".UTF-8"
                               << QString(row).section(' ', 1);
    }
    // The start-up steps run in a child process under the locale (see main()).
    void languageFromLocale() {
        QFETCH(QString, locale);
        QFETCH(QString, catalogue);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("LC_ALL"), locale);
        // Unlike offscreen, the minimal platform frees its screen at exit, so
        // a leak check of the child reports only our own allocations.
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("minimal"));
        QProcess child;
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--start-up")});
        QVERIFY(child.waitForFinished() && child.exitCode() == 0);

        const QString file = QStringLiteral(":/%1.qm").arg(catalogue);
        QTranslator translator;
        QVERIFY(translator.load(file));
        const QString exit = translator.translate("global", "Exit");
        QCOMPARE(QString::fromUtf8(child.readAllStandardOutput()), file + '\n' + exit + '\n');
    }
    // Qt completes a bare "pt" in the environment to pt_BR; only the name itself
    // can show that it means European Portuguese. A negative id names nothing.
    void languageNames() {
        QCOMPARE(TessLocale::getLanguageAbbrByLocaleName(QStringLiteral("pt")),
                 QStringLiteral("ptg"));
        QCOMPARE(TessLocale::getLanguageAbbrByID(-1) + TessLocale::getLanguageAbbrByID(19), "csy");
    }

    // The texts the updater shows keep their ids and English texts.
    void stringTable() {
        for (const QString row :
             {"14 Exit", "79 Cancel", "345 Completed", "365 Quillon", "432 Upgrade",
              "539 Updating...", "672 Downloading",
              "685 A new version of Quillon is available. Click here to update."})
            QCOMPARE(StrTable::LoadStr(row.section(' ', 0, 0).toInt()), row.section(' ', 1));

        // Translators write a line break as backslash-n and a tab as backslash-t.
        struct German : QTranslator {
            QString translate(const char *, const char *, const char *, int) const override {
                return QStringLiteral("Jetzt\\naktualisieren\\Nund\\tlos");
            }
        } german;
        QCoreApplication::installTranslator(&german); // removed again when it goes
        QCOMPARE(StrTable::LoadStr(432), QStringLiteral("Jetzt\naktualisieren\\Nund\tlos"));
        QCOMPARE(StrTable::LookupStrID(QStringLiteral("Tray_EXIT")), 14);
        QCOMPARE(StrTable::LookupStrID(QStringLiteral("tray_exi")), -1);
    }

    // Each catalogue is the Qt magic followed by exactly two sections, the hash
    // index (0x42) and the messages (0x69), each a tag byte and a big-endian
    // 32-bit length; and it translates every text of the table as compiled.
    // The black-and-white tray icon is 64 pixels, the others 72.
    void resources() {
        const QByteArray magic = QByteArray::fromHex("3cb86418caef9c95cd211cbf60a1bddd");
        const QStringList names = QDir(QStringLiteral(":/")).entryList({QStringLiteral("*.qm")});
        QCOMPARE(names.size(), 20);
        for (const QString &name : names) {
            QFile file(QStringLiteral(":/") + name);
            QVERIFY(file.open(QIODevice::ReadOnly));
            const QByteArray qm = file.readAll();
            QByteArray tags;
            qint64 at = magic.size();
            for (; at + 5 <= qm.size(); at += 5 + qFromBigEndian<quint32>(qm.constData() + at + 1))
                tags += qm[int(at)];
            QVERIFY2(qm.startsWith(magic) && tags == "\x42\x69" && at == qm.size(),
                     qPrintable(name));
            QVERIFY(name != QLatin1String("enu.qm") || qm.size() == 100291);

            QTranslator translator;
            QVERIFY(translator.load(file.fileName()));
            for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id)
                QVERIFY2(!translator.translate("global", StrTable::stab[id]).isEmpty(),
                         qPrintable(QStringLiteral("%1: id %2").arg(name).arg(id)));
        }
        for (const char *missing : {":/fra.qm", ":/deu.qm", ":/esn.qm"})
            QVERIFY2(!QFile::exists(QLatin1String(missing)), missing);
        for (const char *theme : {"normal", "win-linux-black", "mac-black", "mac-white"}) {
            const QImage icon(QStringLiteral(":/images/%1/icon_upgrade.png").arg(theme));
            const int size = qstrcmp(theme, "win-linux-black") == 0 ? 64 : 72;
            QVERIFY2(icon.size() == QSize(size, size), theme);
        }
    }
};

int main(int argc, char **argv) {
    if (argc == 2 && !qstrcmp(argv[1], "--start-up")) {
        // For languageFromLocale: the catalogue chosen and the text of "Exit".
        QApplication app(argc, argv);
        initializeLanguage(app);
        std::printf("%s\n%s\n", qPrintable(getCurrentLanguageFileName()),
                    StrTable::LoadStr(14).toUtf8().constData());
        return 0;
    }
    QCoreApplication app(argc, argv);
    TestTexts test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_texts.moc"
