#include "app-setup.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QTranslator>

#include <csignal>

#include <fontconfig/fontconfig.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

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

void initializeAllocator() {
#ifdef __GLIBC__
    if (qEnvironmentVariable("GLIBC_TUNABLES").contains(QLatin1String("glibc.malloc.")) ||
        qEnvironmentVariableIsSet("MALLOC_TRIM_THRESHOLD_") ||
        qEnvironmentVariableIsSet("MALLOC_MMAP_THRESHOLD_"))
        return;
    // The network thread receives a download in chunks of up to 256 KiB,
    // which are freed on other threads once written and hashed. By default
    // glibc maps chunks that size on their own, and once it has raised that
    // limit it still returns the free end of the network thread's heap to
    // the system whenever it passes twice a chunk: every few chunks the next
    // ones fault their pages in afresh, each fault a zeroed page (and on a
    // virtual machine often a trip to the host). A 1 GiB pack took a quarter
    // to a half more processor time that way. Fixed limits keep the few
    // chunks in flight inside the heap, reused from one to the next.
    // 512 KiB is also the highest mapping limit glibc accepts on 32-bit x86.
    mallopt(M_MMAP_THRESHOLD, 512 * 1024);
    mallopt(M_TRIM_THRESHOLD, 2 * 1024 * 1024);
#endif
}

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

void releaseUnusedFontConfiguration() {
    // Any window may have drawn text, and so have loaded the configuration
    // that Qt is about to destroy: then there is nothing to save.
    if (!QGuiApplication::allWindows().isEmpty())
        return;
    FcConfig *empty = FcConfigCreate();
    if (empty == nullptr)
        return;
    FcConfigSetCurrent(empty); // takes a reference of its own
    FcConfigDestroy(empty);
}
