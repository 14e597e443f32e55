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

    // Whole names that override the language part.
    QTest::newRow("zh_tw") << "zh_tw"
                           << "cht";
    QTest::newRow("zh_hk") << "zh_hk"
                           << "cht";
    QTest::newRow("zh_mo") << "zh_mo"
                           << "cht";
    QTest::newRow("pt") << "pt"
                        << "ptg";
    QTest::newRow("pt_pt") << "pt_pt"
                           << "ptg";

    // Every language part of the map, with and without a territory.
    QTest::newRow("en") << "en"
                        << "enu";
    QTest::newRow("en_us") << "en_us"
                           << "enu";
    QTest::newRow("zh") << "zh"
                        << "chs";
    QTest::newRow("zh_cn") << "zh_cn"
                           << "chs";
    QTest::newRow("zh_sg") << "zh_sg"
                           << "chs";
    QTest::newRow("ja_jp") << "ja_jp"
                           << "jpn";
    QTest::newRow("de_de") << "de_de"
                           << "deu";
    QTest::newRow("de_at") << "de_at"
                           << "deu";
    QTest::newRow("ko_kr") << "ko_kr"
                           << "krn";
    QTest::newRow("fr_fr") << "fr_fr"
                           << "fra";
    QTest::newRow("fr_ca") << "fr_ca"
                           << "fra";
    QTest::newRow("it_it") << "it_it"
                           << "ita";
    QTest::newRow("es_es") << "es_es"
                           << "esn";
    QTest::newRow("es_mx") << "es_mx"
                           << "esn";
    QTest::newRow("pt_br") << "pt_br"
                           << "ptb";
    QTest::newRow("pt_ao") << "pt_ao"
                           << "ptb";
    QTest::newRow("ru_ru") << "ru_ru"
                           << "rus";
    QTest::newRow("da_dk") << "da_dk"
                           << "dan";
    QTest::newRow("no") << "no"
                        << "nor";
    QTest::newRow("nb_no") << "nb_no"
                           << "nor";
    QTest::newRow("nn_no") << "nn_no"
                           << "nor";
    QTest::newRow("sv_se") << "sv_se"
                           << "sve";
    QTest::newRow("nl_nl") << "nl_nl"
                           << "nld";
    QTest::newRow("nl_be") << "nl_be"
                           << "nld";
    QTest::newRow("pl_pl") << "pl_pl"
                           << "plk";
    QTest::newRow("hu_hu") << "hu_hu"
                           << "hun";
    QTest::newRow("tr_tr") << "tr_tr"
                           << "trk";
    QTest::newRow("cs_cz") << "cs_cz"
                           << "csy";

    // Anything else is English.
    QTest::newRow("c") << "c"
                       << "enu";
    QTest::newRow("el_gr") << "el_gr"
                           << "enu";
    QTest::newRow("ar_eg") << "ar_eg"
                           << "enu";
    QTest::newRow("empty") << ""
                           << "enu";
    // Only the exact names override: a longer name falls to the language part.
    QTest::newRow("pt_pt_x") << "pt_pt_x"
                             << "ptb";
    QTest::newRow("zh_tw_x") << "zh_tw_x"
                             << "chs";
    // The names come lower-cased; the lists do not match other spellings.
    QTest::newRow("zh_TW") << "zh_TW"
                           << "chs";
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
