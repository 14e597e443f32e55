#ifndef QUILLON_AUTOUPDATER_APP_SETUP_H
#define QUILLON_AUTOUPDATER_APP_SETUP_H

// The steps main() takes to prepare the process before the controller starts.

#include <QString>

class QApplication;

// Language: the embedded catalogue of the language chosen from the system
// locale, as ":/<abbr>.qm".
QString getCurrentLanguageFileName();

// Installs the catalogue of the chosen language into the application and
// builds the UI string table. Called once, after the application object, the
// paths and the logger exist and before any window or text is made.
void initializeLanguage(QApplication &app);

#endif
