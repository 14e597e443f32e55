// The language the updater runs in, chosen from real locale environments: a
// probe program runs the start-up language steps as a child process with LANG
// and LC_ALL set and reports the catalogue it installed.

#include <QtTest>

#include <QProcess>
#include <QProcessEnvironment>
#include <QTranslator>

class TestLanguageSelection : public QObject {
    Q_OBJECT

private slots:
    void localeEnvironment_data();
    void localeEnvironment();
};

namespace {

QMap<QString, QString> parseProbeOutput(const QByteArray &output) {
    QMap<QString, QString> values;
    for (const QString &line : QString::fromUtf8(output).split(QLatin1Char('\n'))) {
        int equals = line.indexOf(QLatin1Char('='));
        if (equals > 0) {
            values.insert(line.left(equals), line.mid(equals + 1));
        }
    }
    return values;
}

} // namespace

void TestLanguageSelection::localeEnvironment_data() {
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("language");

    struct Case {
        const char *locale;
        const char *language;
    };
    const Case cases[] = {
        {"zh_TW.UTF-8", "cht"},
        {"zh_HK.UTF-8", "cht"},
        {"zh_MO.UTF-8", "cht"},
        {"zh_CN.UTF-8", "chs"},
        {"zh_SG.UTF-8", "chs"},
        {"ja_JP.UTF-8", "jpn"},
        {"ko_KR.UTF-8", "krn"},
        {"nb_NO.UTF-8", "nor"},
        {"nn_NO.UTF-8", "nor"},
        {"pt_PT.UTF-8", "ptg"},
        {"pt_BR.UTF-8", "ptb"},
        // The language table maps the bare name "pt" to European Portuguese,
        // but a process never sees that name: Qt completes LANG=pt with the
        // likeliest territory, and QLocale::system().name() is "pt_BR". A
        // system set to plain "pt" therefore runs in Brazilian Portuguese.
        {"pt", "ptb"},
        {"it_IT.UTF-8", "ita"},
        {"ru_RU.UTF-8", "rus"},
        {"da_DK.UTF-8", "dan"},
        {"sv_SE.UTF-8", "sve"},
        {"nl_NL.UTF-8", "nld"},
        {"pl_PL.UTF-8", "plk"},
        {"hu_HU.UTF-8", "hun"},
        {"tr_TR.UTF-8", "trk"},
        {"cs_CZ.UTF-8", "csy"},
        {"en_US.UTF-8", "enu"},
        // French, German and Spanish map to "fra", "deu" and "esn", while
        // their catalogues are built in as "fre", "ger" and "spn": these
        // systems run in English.
        {"fr_FR.UTF-8", "enu"},
        {"de_DE.UTF-8", "enu"},
        {"es_ES.UTF-8", "enu"},
        {"C", "enu"},
        {"el_GR.UTF-8", "enu"},
        {"ar_EG.UTF-8", "enu"},
    };
    for (const Case &c : cases) {
        QTest::newRow(c.locale) << QString::fromLatin1(c.locale) << QString::fromLatin1(c.language);
    }
}

void TestLanguageSelection::localeEnvironment() {
    QFETCH(QString, locale);
    QFETCH(QString, language);

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString &name : env.keys()) {
        if (name.startsWith(QLatin1String("LC_")) || name == QLatin1String("LANGUAGE")) {
            env.remove(name);
        }
    }
    env.insert(QStringLiteral("LANG"), locale);
    env.insert(QStringLiteral("LC_ALL"), locale);
    // The probe shows no window. Unlike offscreen, the minimal platform frees
    // its screen at exit, so a leak check of the probe reports only our own
    // allocations.
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("minimal"));

    QProcess probe;
    probe.setProcessEnvironment(env);
    probe.start(QStringLiteral(LANGUAGE_PROBE), QStringList());
    QVERIFY2(probe.waitForFinished(), qPrintable(probe.errorString()));
    QByteArray errors = probe.readAllStandardError();
    QVERIFY2(probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0,
             errors.right(4000).constData());

    QMap<QString, QString> chosen = parseProbeOutput(probe.readAllStandardOutput());
    QString file = QStringLiteral(":/") + language + QStringLiteral(".qm");
    QString context = QStringLiteral("chose '%1' under system locale %2")
                          .arg(chosen.value("language"), chosen.value("system_locale"));
    QVERIFY2(chosen.value("language") == language, qPrintable(context));
    QCOMPARE(chosen.value("file"), file);
    QCOMPARE(chosen.value("installed"), QStringLiteral("yes"));

    // The string table reads through the installed catalogue.
    QTranslator catalogue;
    QVERIFY(catalogue.load(file));
    QString exitText = catalogue.translate("global", "Exit");
    QCOMPARE(chosen.value("exit_text"), exitText.isEmpty() ? QStringLiteral("Exit") : exitText);
}

QTEST_GUILESS_MAIN(TestLanguageSelection)
#include "test_language_selection.moc"
