// The translation catalogue sources (texts/<code>.ts) against the string
// table: each must hold exactly one finished translation for every distinct
// English text of the table, in the context the program looks in, carrying
// the same markers as the English text. A message left in English counts as
// untranslated unless texts/untranslated-allowlist.tsv says the language
// keeps it.
//
// This fails for every language whose translator has not finished yet.

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QXmlStreamReader>
#include <QtTest>

#include "texts/strtab.h"

namespace {

const QStringList kCatalogues = {
    QStringLiteral("enu"), QStringLiteral("cht"), QStringLiteral("chs"), QStringLiteral("jpn"),
    QStringLiteral("ger"), QStringLiteral("krn"), QStringLiteral("fre"), QStringLiteral("ita"),
    QStringLiteral("spn"), QStringLiteral("ptb"), QStringLiteral("ptg"), QStringLiteral("rus"),
    QStringLiteral("dan"), QStringLiteral("nor"), QStringLiteral("sve"), QStringLiteral("nld"),
    QStringLiteral("plk"), QStringLiteral("hun"), QStringLiteral("trk"), QStringLiteral("csy"),
};

struct Message {
    QString context;
    QString source;
    QString translation;
    QString type; // empty when finished
    int translations = 0;
};

struct Catalogue {
    QList<Message> messages;
    QString error;
};

Catalogue readCatalogue(const QString &path) {
    Catalogue cat;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        cat.error = file.errorString();
        return cat;
    }
    QXmlStreamReader xml(&file);
    QString context;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement()) {
            continue;
        }
        if (xml.name() == QLatin1String("context")) {
            context.clear();
        } else if (xml.name() == QLatin1String("name")) {
            context = xml.readElementText();
        } else if (xml.name() == QLatin1String("message")) {
            Message msg;
            msg.context = context;
            while (xml.readNextStartElement()) {
                if (xml.name() == QLatin1String("source")) {
                    msg.source = xml.readElementText();
                } else if (xml.name() == QLatin1String("translation")) {
                    ++msg.translations;
                    msg.type = xml.attributes().value(QLatin1String("type")).toString();
                    msg.translation = xml.readElementText();
                } else {
                    xml.skipCurrentElement();
                }
            }
            cat.messages.append(msg);
        }
    }
    if (xml.hasError()) {
        cat.error = QStringLiteral("line %1: %2").arg(xml.lineNumber()).arg(xml.errorString());
    }
    return cat;
}

// Argument markers, installer markers and installer font tags, sorted, so
// that two texts compare equal when they hold the same markers equally often.
QStringList markers(const QString &text) {
    static const QRegularExpression re(
        QStringLiteral("%\\d+|\\[[A-Za-z][A-Za-z0-9_.]*\\]|\\{\\\\[A-Za-z][A-Za-z0-9_]*\\}"));
    QStringList found;
    auto it = re.globalMatch(text);
    while (it.hasNext()) {
        found.append(it.next().captured(0));
    }
    found.sort();
    return found;
}

QStringList distinctTableTexts() {
    QStringList texts;
    QSet<QString> seen;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString text = QString::fromUtf8(StrTable::stab[id]);
        if (!seen.contains(text)) {
            seen.insert(text);
            texts.append(text);
        }
    }
    return texts;
}

QSet<QString> allowList(const QString &code) {
    QSet<QString> allowed;
    QFile file(QStringLiteral(QUILLON_TEXTS_DIR "/untranslated-allowlist.tsv"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return allowed;
    }
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).remove(QLatin1Char('\n'));
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        const QStringList fields = line.split(QLatin1Char('\t'));
        if (fields.size() == 2 && fields[0] == code) {
            allowed.insert(fields[1]);
        }
    }
    return allowed;
}

} // namespace

class TestCatalogues : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { StrTable::InitStrTable(); }
    void exactlyTheShippedCatalogues();
    void catalogue_data();
    void catalogue();
};

void TestCatalogues::exactlyTheShippedCatalogues() {
    QStringList found = QDir(QStringLiteral(QUILLON_TEXTS_DIR))
                            .entryList({QStringLiteral("*.ts")}, QDir::Files, QDir::Name);
    QStringList expected;
    for (const QString &code : kCatalogues) {
        expected.append(code + QLatin1String(".ts"));
    }
    expected.sort();
    QCOMPARE(found, expected);
}

void TestCatalogues::catalogue_data() {
    QTest::addColumn<QString>("code");
    for (const QString &code : kCatalogues) {
        QTest::newRow(qPrintable(code)) << code;
    }
}

void TestCatalogues::catalogue() {
    QFETCH(QString, code);
    const bool english = code == QLatin1String("enu");
    const Catalogue cat = readCatalogue(QStringLiteral(QUILLON_TEXTS_DIR "/%1.ts").arg(code));
    QVERIFY2(cat.error.isEmpty(), qPrintable(cat.error));

    const QStringList texts = distinctTableTexts();
    QStringList sources;
    for (const Message &msg : cat.messages) {
        sources.append(msg.source);
    }
    if (sources != texts)
        qWarning("%s.ts does not follow the table; run tools/i18n/update_ts.py", qPrintable(code));
    QCOMPARE(sources, texts);

    const QSet<QString> allowed = allowList(code);
    QStringList problems;
    int unfinished = 0;
    for (int i = 0; i < cat.messages.size(); ++i) {
        const Message &msg = cat.messages[i];
        const QString where = QStringLiteral("message %1 (%2): ").arg(i).arg(msg.source);
        if (msg.context != QLatin1String("global")) {
            problems.append(where +
                            QStringLiteral("context %1 instead of global").arg(msg.context));
        }
        if (msg.translations != 1) {
            problems.append(where + QStringLiteral("%1 translations").arg(msg.translations));
            continue;
        }
        if (!msg.type.isEmpty() || msg.translation.isEmpty()) {
            ++unfinished;
            continue;
        }
        const QStringList have = markers(msg.translation);
        const QStringList want = markers(msg.source);
        if (have != want) {
            const QString none = QStringLiteral("(none)");
            problems.append(where + QStringLiteral("markers %1 instead of %2")
                                        .arg(have.isEmpty() ? none : have.join(QLatin1Char(' ')),
                                             want.isEmpty() ? none : want.join(QLatin1Char(' '))));
        }
        if (english && msg.translation != msg.source) {
            problems.append(where + QStringLiteral("the English text differs from its source"));
        }
        if (!english && msg.translation == msg.source && !allowed.contains(msg.source)) {
            problems.append(where + QStringLiteral("left in English"));
        }
    }
    if (unfinished) {
        problems.prepend(QStringLiteral("%1 of %2 messages are not translated yet")
                             .arg(unfinished)
                             .arg(cat.messages.size()));
    }
    const int shown = 20;
    QStringList report = problems.mid(0, shown);
    if (problems.size() > shown) {
        report.append(QStringLiteral("... and %1 more").arg(problems.size() - shown));
    }
    QVERIFY2(problems.isEmpty(),
             qPrintable(code + QLatin1String(".ts:\n  ") + report.join(QLatin1String("\n  "))));
}

QTEST_GUILESS_MAIN(TestCatalogues)
#include "test_catalogues.moc"
