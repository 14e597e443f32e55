// The language table of TessLocale: how a locale name becomes a language
// abbreviation and how ids and abbreviations correspond. Which catalogue a
// real system locale ends up installing, with the embedded catalogues present,
// is checked by test_language_selection.

#include <QtTest>

#include <climits>

#include "tesslocale.h"

class TestTessLocale : public QObject {
    Q_OBJECT

private slots:
    void localeNameToAbbreviation_data();
    void localeNameToAbbreviation();
    void abbreviationById_data();
    void abbreviationById();
    void supportedLanguages();
    void fallSafeIsEnglish();
    void missingCatalogueIsNotInstalled();
};

void TestTessLocale::localeNameToAbbreviation_data() {
    QTest::addColumn<QString>("localeLower");
    QTest::addColumn<QString>("abbr");

    struct Case {
        const char *localeLower;
        const char *abbr;
    };
    const Case cases[] = {
        // Whole names that override the language part.
        {"zh_tw", "cht"},
        {"zh_hk", "cht"},
        {"zh_mo", "cht"},
        {"pt", "ptg"},
        {"pt_pt", "ptg"},
        // Every language part of the map, with and without a territory.
        {"en", "enu"},
        {"en_us", "enu"},
        {"zh", "chs"},
        {"zh_cn", "chs"},
        {"zh_sg", "chs"},
        {"ja_jp", "jpn"},
        {"de_de", "deu"},
        {"de_at", "deu"},
        {"ko_kr", "krn"},
        {"fr_fr", "fra"},
        {"fr_ca", "fra"},
        {"it_it", "ita"},
        {"es_es", "esn"},
        {"es_mx", "esn"},
        {"pt_br", "ptb"},
        {"pt_ao", "ptb"},
        {"ru_ru", "rus"},
        {"da_dk", "dan"},
        {"no", "nor"},
        {"nb_no", "nor"},
        {"nn_no", "nor"},
        {"sv_se", "sve"},
        {"nl_nl", "nld"},
        {"nl_be", "nld"},
        {"pl_pl", "plk"},
        {"hu_hu", "hun"},
        {"tr_tr", "trk"},
        {"cs_cz", "csy"},
        // Anything else is English.
        {"c", "enu"},
        {"el_gr", "enu"},
        {"ar_eg", "enu"},
        {"", "enu"},
        // Only the exact names override: a longer name falls to the language part.
        {"pt_pt_x", "ptb"},
        {"zh_tw_x", "chs"},
    };
    for (const Case &c : cases) {
        QTest::addRow("'%s'", c.localeLower)
            << QString::fromLatin1(c.localeLower) << QString::fromLatin1(c.abbr);
    }
}

void TestTessLocale::localeNameToAbbreviation() {
    QFETCH(QString, localeLower);
    QFETCH(QString, abbr);
    QCOMPARE(TessLocale::getLanguageAbbrByLocaleName(localeLower), abbr);
}

void TestTessLocale::abbreviationById_data() {
    QTest::addColumn<int>("id");
    QTest::addColumn<QString>("abbr");

    const char *const expected[] = {"enu", "cht", "chs", "jpn", "deu", "krn", "fra",
                                    "ita", "esn", "ptb", "rus", "dan", "nor", "sve",
                                    "nld", "plk", "hun", "ptg", "trk", "csy"};
    for (int id = 0; id < 20; ++id) {
        QTest::addRow("%d", id) << id << QString::fromLatin1(expected[id]);
    }
    // Outside the list, including every negative id, is empty.
    QTest::newRow("20") << 20 << QString();
    QTest::newRow("21") << 21 << QString();
    QTest::newRow("-1") << -1 << QString();
    QTest::newRow("INT_MIN") << INT_MIN << QString();
    QTest::newRow("INT_MAX") << INT_MAX << QString();
}

void TestTessLocale::abbreviationById() {
    QFETCH(int, id);
    QFETCH(QString, abbr);
    QString actual = TessLocale::getLanguageAbbrByID(id);
    QCOMPARE(actual, abbr);
    QCOMPARE(actual.isEmpty(), abbr.isEmpty());
}

void TestTessLocale::supportedLanguages() {
    QStringList languages = TessLocale::getSupportedLanguages();
    QCOMPARE(languages.size(), 20);
    for (int id = 0; id < languages.size(); ++id) {
        QCOMPARE(languages.at(id), TessLocale::getLanguageAbbrByID(id));
    }
    // The catalogues of French, German and Spanish are built in under these
    // names, which the language list deliberately does not use.
    for (const char *name : {"fre", "ger", "spn"}) {
        QVERIFY2(!languages.contains(QLatin1String(name)), name);
    }
}

void TestTessLocale::fallSafeIsEnglish() {
    QCOMPARE(TessLocale::getStrLanguageFallSafe(), QStringLiteral("enu"));
}

void TestTessLocale::missingCatalogueIsNotInstalled() {
    // This test program embeds no catalogue at all.
    QVERIFY(!TessLocale::isLanguageInstalled(QStringLiteral("enu")));
    // With nothing installed every locale ends in the fall-safe language.
    QCOMPARE(TessLocale::getDefaultLanguage(), QStringLiteral("enu"));
}

QTEST_GUILESS_MAIN(TestTessLocale)
#include "test_tesslocale.moc"
