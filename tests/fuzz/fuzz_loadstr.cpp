// LoadStr's escape handling on arbitrary catalogue texts: a translator that
// answers every lookup with the fuzz input stands in for a catalogue.

#include "texts/strtab.h"

#include <QCoreApplication>
#include <QTranslator>

#include <cstdint>
#include <cstdlib>

namespace {

class EchoTranslator : public QTranslator {
public:
    QString text;
    bool isEmpty() const override { return false; }
    QString translate(const char *, const char *, const char *, int) const override {
        return text;
    }
};

EchoTranslator *translator = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    static QCoreApplication app(*argc, *argv);
    translator = new EchoTranslator;
    QCoreApplication::installTranslator(translator);
    StrTable::InitStrTable();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    translator->text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    const QString loaded = StrTable::LoadStr(int(size % StrTable::NUM_STRING_IDS));

    // Only the two escapes change anything: each removes one character.
    const int escapes = translator->text.count(QLatin1String("\\n")) +
                        translator->text.count(QLatin1String("\\t"));
    if (loaded.size() > translator->text.size() || loaded.size() < translator->text.size() - escapes)
        std::abort();
    if (!translator->text.contains(QLatin1Char('\\')) && loaded != translator->text)
        std::abort();
    return 0;
}
