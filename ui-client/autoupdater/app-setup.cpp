#include "app-setup.h"

#include <QApplication>
#include <QTranslator>

#include "tesslocale.h"
#include "texts/strtab.h"

namespace {

// The translator serves every text for the whole run, so it is made once and
// never deleted. Holding it here as well keeps leak checkers from taking the
// deliberate lifetime allocation for a lost one after the application object,
// which only borrows it, has gone.
QTranslator *languageTranslator = nullptr;

} // namespace

QString getCurrentLanguageFileName() {
    return QStringLiteral(":/") + TessLocale::getDefaultLanguage() + QStringLiteral(".qm");
}

void initializeLanguage(QApplication &app) {
    languageTranslator = new QTranslator();
    // A catalogue that is missing or fails to load leaves the translator
    // empty; the texts then show in English, their source language.
    languageTranslator->load(getCurrentLanguageFileName(), QString(), QString(), QString());
    if (!languageTranslator->isEmpty()) {
        app.installTranslator(languageTranslator);
    }
    StrTable::InitStrTable();
}
