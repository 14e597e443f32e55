#ifndef QUILLON_AUTOUPDATER_APP_SETUP_H
#define QUILLON_AUTOUPDATER_APP_SETUP_H

// The steps main() takes to prepare the process before the controller starts.

#include <QString>

class QApplication;

// Keeps the memory that carries a download's data in the allocator between
// chunks instead of handing it back to the system and faulting it in again
// for the next one. Called first, before any thread starts. Someone who tunes
// the allocator through the environment keeps their settings.
void initializeAllocator();

// Paths: registers "resource_path", "user_data_path" and "log_path", all
// derived from the folder that holds the running executable.
void initializePaths();
// The same for a given executable folder; initializePaths() uses the running
// program's own.
void registerPaths(const QString &executable_dir);

// A write to a closed socket or pipe must fail with an error, not end the run.
void initializeSignalHandler();

// Opens the rotating log file "auto_updater.log" in the log folder, with the
// levels of the installation's log template. A failure only means no log.
void initializeLogger();

// Language: the embedded catalogue of the language chosen from the system
// locale, as ":/<abbr>.qm".
QString getCurrentLanguageFileName();

// Installs the catalogue of the chosen language into the application and
// builds the UI string table. Called once, after the application object, the
// paths and the logger exist and before any window or text is made.
void initializeLanguage(QApplication &app);

// Qt's font database, when the application object goes, destroys fontconfig's
// current configuration, and fontconfig loads one first if nothing has: every
// fonts.conf and font cache on the system, parsed at exit. A run that never
// showed a window has drawn no text and loaded none, so this hands fontconfig
// an empty configuration for Qt to destroy instead. Called after the event
// loop, while the controller (and so its tray icon) still exists; after any
// window it leaves fontconfig alone.
void releaseUnusedFontConfiguration();

#endif
