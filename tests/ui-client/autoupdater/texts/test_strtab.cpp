// The numbered UI string table: its invariants as compiled into the program,
// the translation of ids through an installed catalogue with the escape rule,
// and the lookup of ids by key.

#include <QCoreApplication>
#include <QHash>
#include <QSet>
#include <QString>
#include <QTranslator>
#include <QtTest>

#include "texts/strtab.h"

namespace {

// Translator installed for the length of one test function.
class InstalledCatalogue {
public:
    explicit InstalledCatalogue(const QString &path) {
        loaded = translator.load(path);
        if (loaded) {
            QCoreApplication::installTranslator(&translator);
        }
    }
    ~InstalledCatalogue() { QCoreApplication::removeTranslator(&translator); }
    InstalledCatalogue(const InstalledCatalogue &) = delete;
    InstalledCatalogue &operator=(const InstalledCatalogue &) = delete;

    bool loaded = false;

private:
    QTranslator translator;
};

QString text(int id) {
    return QString::fromUtf8(StrTable::stab[id]);
}

} // namespace

class TestStrTable : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { StrTable::InitStrTable(); }

    void everyIdHasKeyAndText();
    void fixedRows_data();
    void fixedRows();
    void keysAreUniqueIgnoringCase();
    void textsShareTranslationsAsPlanned();
    void noEnglishTextTriggersTheEscapes();

    void loadStrWithoutCatalogueIsTheEnglishText();
    void loadStrWithCatalogue_data();
    void loadStrWithCatalogue();
    void idsSharingATextShareItsTranslation();

    void lookupStrID_data();
    void lookupStrID();
    void lookupFindsEveryKeyInAnyCase();
};

void TestStrTable::everyIdHasKeyAndText() {
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        QVERIFY2(StrTable::ktab[id] && *StrTable::ktab[id], qPrintable(QString::number(id)));
        QVERIFY2(StrTable::stab[id] && *StrTable::stab[id], qPrintable(QString::number(id)));
    }
}

void TestStrTable::fixedRows_data() {
    QTest::addColumn<int>("id");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("english");

    QTest::newRow("open folder") << 0 << "open_folder"
                                 << "Open Folder";
    QTest::newRow("menu exit") << 14 << "tray_exit"
                               << "Exit";
    QTest::newRow("dialog cancel") << 79 << "btn_cancel"
                                   << "Cancel";
    QTest::newRow("download done") << 345 << "msg_download_done"
                                   << "Completed";
    QTest::newRow("product name") << 365 << "app_name"
                                  << "Quillon";
    QTest::newRow("menu upgrade") << 432 << "tray_upgrade"
                                  << "Upgrade";
    QTest::newRow("updating") << 539 << "tray_updating"
                              << "Updating...";
    QTest::newRow("downloading") << 672 << "msg_download_downloading"
                                 << "Downloading";
    QTest::newRow("click to update")
        << 685 << "tray_click_to_update"
        << "A new version of Quillon is available. Click here to update.";
}

void TestStrTable::fixedRows() {
    QFETCH(int, id);
    QFETCH(QString, key);
    QFETCH(QString, english);
    QCOMPARE(QString::fromLatin1(StrTable::ktab[id]), key);
    QCOMPARE(text(id), english);
}

void TestStrTable::keysAreUniqueIgnoringCase() {
    QHash<QString, int> seen;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString folded = QString::fromLatin1(StrTable::ktab[id]).toLower();
        QVERIFY2(!seen.contains(folded), qPrintable(QStringLiteral("key %1 of id %2 repeats id %3")
                                                        .arg(folded)
                                                        .arg(id)
                                                        .arg(seen.value(folded))));
        seen.insert(folded, id);
    }
}

// Every distinct English text is one message of each catalogue, so their
// number is fixed; and a text with an argument marker is never shared, since
// callers fill in different values at different ids.
void TestStrTable::textsShareTranslationsAsPlanned() {
    QHash<QString, QList<int>> ids;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        ids[text(id)].append(id);
    }
    QCOMPARE(ids.size(), 651);
    int withArgument = 0;
    for (auto it = ids.cbegin(); it != ids.cend(); ++it) {
        if (it.key().contains(QLatin1String("%1"))) {
            ++withArgument;
            QVERIFY2(it.value().size() == 1, qPrintable(it.key()));
        }
    }
    QCOMPARE(withArgument, 76);
}

void TestStrTable::noEnglishTextTriggersTheEscapes() {
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString t = text(id);
        QVERIFY2(!t.contains(QLatin1String("\\n")) && !t.contains(QLatin1String("\\t")),
                 qPrintable(QStringLiteral("id %1: %2").arg(id).arg(t)));
    }
}

void TestStrTable::loadStrWithoutCatalogueIsTheEnglishText() {
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        QCOMPARE(StrTable::LoadStr(id), text(id));
    }
}

void TestStrTable::loadStrWithCatalogue_data() {
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");

    QTest::newRow("plain translation") << "tray_exit"
                                       << "Beenden";
    QTest::newRow("backslash-n is a line break") << "msg_sync_complete"
                                                 << "Synchronisierung\nabgeschlossen";
    QTest::newRow("backslash-t is a tab")
        << "tray_updating" << QString::fromUtf8("Aktualisierung\tläuft...");
    QTest::newRow("backslash-N stays") << "tray_upgrade"
                                       << "Jetzt\\Naktualisieren";
    QTest::newRow("no escape of the backslash itself")
        << "open_folder" << QString::fromUtf8("Ordner\\\nöffnen");
    QTest::newRow("other context is ignored") << "msg_download_done"
                                              << "Completed";
    QTest::newRow("missing translation falls back to English") << "app_name"
                                                               << "Quillon";
}

void TestStrTable::loadStrWithCatalogue() {
    QFETCH(QString, key);
    QFETCH(QString, expected);
    InstalledCatalogue catalogue(QStringLiteral(STRTAB_TEST_QM));
    QVERIFY(catalogue.loaded);
    const int id = StrTable::LookupStrID(key);
    QVERIFY(id >= 0);
    QCOMPARE(StrTable::LoadStr(id), expected);
}

void TestStrTable::idsSharingATextShareItsTranslation() {
    InstalledCatalogue catalogue(QStringLiteral(STRTAB_TEST_QM));
    QVERIFY(catalogue.loaded);
    for (const char *english : {"Cancel", "Sync complete"}) {
        QList<int> ids;
        for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
            if (qstrcmp(StrTable::stab[id], english) == 0) {
                ids.append(id);
            }
        }
        QVERIFY2(ids.size() >= 2, english);
        for (int id : ids) {
            QCOMPARE(StrTable::LoadStr(id), StrTable::LoadStr(ids.first()));
        }
        QVERIFY(StrTable::LoadStr(ids.first()) != QLatin1String(english));
    }
}

void TestStrTable::lookupStrID_data() {
    QTest::addColumn<QString>("key");
    QTest::addColumn<int>("id");

    QTest::newRow("mixed case") << "Tray_Exit" << 14;
    QTest::newRow("empty") << "" << -1;
    QTest::newRow("unknown") << "tray_quit" << -1;
    QTest::newRow("prefix of a key") << "tray_exi" << -1;
    QTest::newRow("trailing blank") << "tray_exit " << -1;
    QTest::newRow("non-ASCII") << QString::fromUtf8("tray_éxit") << -1;
}

void TestStrTable::lookupStrID() {
    QFETCH(QString, key);
    QFETCH(int, id);
    QCOMPARE(StrTable::LookupStrID(key), id);
}

void TestStrTable::lookupFindsEveryKeyInAnyCase() {
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString key = QString::fromLatin1(StrTable::ktab[id]);
        QCOMPARE(StrTable::LookupStrID(key.toLower()), id);
        QCOMPARE(StrTable::LookupStrID(key.toUpper()), id);
    }
}

QTEST_GUILESS_MAIN(TestStrTable)
#include "test_strtab.moc"
