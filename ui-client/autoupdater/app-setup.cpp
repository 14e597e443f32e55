#include "app-setup.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QTranslator>

#include <csignal>

#include "log/log.h"
#include "tesslocale.h"
#include "texts/strtab.h"
#include "uipathmanager.h"

namespace {

// The translator serves every text for the whole run, so it is made once and
// never deleted. Holding it here as well keeps leak checkers from taking the
// deliberate lifetime allocation for a lost one after the application object,
// which only borrows it, has gone.
QTranslator *languageTranslator = nullptr;

// Archive slots of the log file: the live file plus up to 49 rotated ones.
const int LOG_ROTATE_COUNT = 50;

} // namespace

void registerPaths(const QString &executable_dir) {
    // The installation is <root>/<app>/bin/autoupdater with the client's data
    // and log folders beside <app>. cleanPath resolves the ".." textually, so
    // nothing has to exist yet.
    UIPathManager *paths = UIPathManager::getInstance();
    paths->setPath(QStringLiteral("resource_path"),
                   QDir::cleanPath(executable_dir + QStringLiteral("/..")));
    paths->setPath(QStringLiteral("user_data_path"),
                   QDir::cleanPath(executable_dir + QStringLiteral("/../../data")));
    paths->setPath(QStringLiteral("log_path"),
                   QDir::cleanPath(executable_dir + QStringLiteral("/../../log")));
}

void initializePaths() {
    registerPaths(QCoreApplication::applicationDirPath());
}

void initializeSignalHandler() {
    std::signal(SIGPIPE, SIG_IGN);
}

void initializeLogger() {
    UIPathManager *paths = UIPathManager::getInstance();
    const QString log_file =
        paths->getPath(QStringLiteral("log_path")) + QStringLiteral("/auto_updater.log");
    const QString log_template = paths->getPath(QStringLiteral("resource_path")) +
                                 QStringLiteral("/log_template/syncfolder_c.debug");
    Logger::Initialize(Logger::FILE_LOGGER, QFile::encodeName(log_file).toStdString(),
                       QFile::encodeName(log_template).toStdString(), LOG_ROTATE_COUNT,
                       Logger::ThreadSafe);
}

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
