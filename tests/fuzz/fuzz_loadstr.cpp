// LoadStr on any catalogue text: only the escapes \n and \t shorten it.
#include "texts/strtab.h"

#include <QCoreApplication>
#include <QTranslator>

#include <cstdlib>

static QString text; // the catalogue's answer to every lookup
struct Echo : QTranslator {
    QString translate(const char *, const char *, const char *, int) const override { return text; }
};

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    static QCoreApplication app(*argc, *argv);
    QCoreApplication::installTranslator(new Echo);
    StrTable::InitStrTable();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    const QString out = StrTable::LoadStr(int(size % StrTable::NUM_STRING_IDS));
    if (out.size() > text.size() ||
        out.size() < text.size() - text.count("\\n") - text.count("\\t"))
        std::abort();
    return 0;
}
