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
    void abbreviationOutsideTheList_data();
    void abbreviationOutsideTheList();
    void supportedLanguages();
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
        // Every language part of the map, some with and without a territory.
        {"en", "enu"},
        {"en_us", "enu"},
        {"zh", "chs"},
        {"zh_cn", "chs"},
        {"ja_jp", "jpn"},
        {"de_de", "deu"},
        {"ko_kr", "krn"},
        {"fr_fr", "fra"},
        {"it_it", "ita"},
        {"es_es", "esn"},
        {"pt_br", "ptb"},
        {"ru_ru", "rus"},
        {"da_dk", "dan"},
        {"no", "nor"},
        {"nb_no", "nor"},
        {"nn_no", "nor"},
        {"sv_se", "sve"},
        {"nl_nl", "nld"},
        {"pl_pl", "plk"},
        {"hu_hu", "hun"},
        {"tr_tr", "trk"},
        {"cs_cz", "csy"},
        // Anything else is English.
        {"c", "enu"},
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

// Outside the list, including every negative id, is empty.
void TestTessLocale::abbreviationOutsideTheList_data() {
    QTest::addColumn<int>("id");
    QTest::newRow("20") << 20;
    QTest::newRow("-1") << -1;
    QTest::newRow("INT_MAX") << INT_MAX;
}

void TestTessLocale::abbreviationOutsideTheList() {
    QFETCH(int, id);
    QCOMPARE(TessLocale::getLanguageAbbrByID(id), QString());
}

// Language ids are positions in the list.
void TestTessLocale::supportedLanguages() {
    const QStringList languages = TessLocale::getSupportedLanguages();
    QCOMPARE(languages,
             QStringList({"enu", "cht", "chs", "jpn", "deu", "krn", "fra", "ita", "esn", "ptb",
                          "rus", "dan", "nor", "sve", "nld", "plk", "hun", "ptg", "trk", "csy"}));
    for (int id = 0; id < languages.size(); ++id)
        QCOMPARE(TessLocale::getLanguageAbbrByID(id), languages.at(id));
}

void TestTessLocale::missingCatalogueIsNotInstalled() {
    // This test program embeds no catalogue at all.
    QVERIFY(!TessLocale::isLanguageInstalled(QStringLiteral("enu")));
    // With nothing installed every locale ends in the fall-safe language.
    QCOMPARE(TessLocale::getStrLanguageFallSafe(), QStringLiteral("enu"));
    QCOMPARE(TessLocale::getDefaultLanguage(), QStringLiteral("enu"));
}

QTEST_GUILESS_MAIN(TestTessLocale)
#include "test_tesslocale.moc"
