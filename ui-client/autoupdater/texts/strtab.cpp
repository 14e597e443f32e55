#include "texts/strtab.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QLatin1String>
#include <QtGlobal>

#include "strtab_data.h"

static_assert(strtab_data::count == StrTable::NUM_STRING_IDS,
              "strtab.tsv must hold exactly one row per string id");

const char *StrTable::ktab[StrTable::NUM_STRING_IDS];
const char *StrTable::stab[StrTable::NUM_STRING_IDS];

void StrTable::InitStrTable() {
    for (int id = 0; id < NUM_STRING_IDS; ++id) {
        ktab[id] = strtab_data::keys[id];
        stab[id] = strtab_data::texts[id];
    }
}

QString StrTable::LoadStr(int id) {
    // Callers pass constant ids; a wrong one is a programming error.
    Q_ASSERT_X(id >= 0 && id < NUM_STRING_IDS, "StrTable::LoadStr", "string id out of range");

    // Without a catalogue, or when the catalogue lacks the text, Qt hands
    // back the English source text, which is then what the user sees.
    QString text = QCoreApplication::translate("global", stab[id], nullptr, -1);

    // Catalogues cannot easily carry control characters, so translators
    // write a line break as backslash-n and a tab as backslash-t.
    text.replace(QLatin1String("\\n"), QLatin1String("\n"), Qt::CaseSensitive);
    text.replace(QLatin1String("\\t"), QLatin1String("\t"), Qt::CaseSensitive);
    return text;
}

int StrTable::LookupStrID(QString key) {
    const QByteArray local = key.toLocal8Bit();
    for (int id = 0; id < NUM_STRING_IDS; ++id) {
        if (qstricmp(local.constData(), ktab[id]) == 0) {
            return id;
        }
    }
    return -1;
}
