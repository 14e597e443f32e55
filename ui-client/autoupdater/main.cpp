#include "app-setup.h"
#include "autoupdater.h"
#include "log/log.h"
#include "qtsingleapplication.h"
#include "scheduling.h"
#include "system-db/system-db-data.h"
#include "system-db/system-db.h"
#include "uipathmanager.h"
#include "ustring/ustring.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QDir>
#include <QNetworkProxy>
#include <QSettings>
#include <QStringList>
#include <QSystemTrayIcon>

#include <clocale>

namespace {

const char *const LOG_COMPONENT = "auto_updater";

} // namespace

int main(int argc, char *argv[]) {
    initializeAllocator();
    enterBackgroundScheduling();
    std::setlocale(LC_ALL, "");

    // Registered before main already; once more here so a build that drops the
    // static registration still finds its texts and icons.
    Q_INIT_RESOURCE(texts);
    Q_INIT_RESOURCE(resource);

    // Nothing here draws with OpenGL, yet on X11 the first window (the tray
    // icon's) would load the GLX stack, and with it a software renderer that
    // alone holds more memory than the rest of the program. Someone who sets
    // the variable keeps their choice.
    if (!qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION"))
        qputenv("QT_XCB_GL_INTEGRATION", "none");

    QCommandLineParser parser;
    QtSingleApplication app(argc, argv, true);
    QStringList arguments;

    QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps, true);

    initializePaths();
    initializeSignalHandler();
    initializeLogger();
    initializeLanguage(app);

    if (app.isRunning()) {
        QLOG_WARNING(LOG_COMPONENT, "auto updater is already running, stop both.");
        app.sendMessage(QStringLiteral("stop"), 5000);
        return 32;
    }

    for (int i = 0; i < argc; ++i)
        arguments << QString::fromUtf8(argv[i]);

    const QCommandLineOption root_path_option(QStringLiteral("root-path"),
                                              QStringLiteral("Root path of Quillon installed."),
                                              QStringLiteral("path"));
    const QCommandLineOption portable_path_option(
        QStringLiteral("portable-path"),
        QStringLiteral("Portable path (per user path) of Quillon installed."),
        QStringLiteral("path"));
    const QCommandLineOption temp_path_option(
        QStringLiteral("temp-path"),
        QStringLiteral("temp path to download files. (default: system temp folder)"),
        QStringLiteral("path"), QDir::tempPath());
    const QCommandLineOption client_version_option(QStringLiteral("client-version"),
                                                   QStringLiteral("Current Quillon version."),
                                                   QStringLiteral("version"));
    const QCommandLineOption server_version_option(
        QStringLiteral("server-version"),
        QStringLiteral(
            "Connected Quillon server version. (repeat this option for multiple servers)"),
        QStringLiteral("version"));
    const QCommandLineOption installer_option(
        QStringLiteral("installer"),
        QStringLiteral("Installer type of current installation. e.g. deb"),
        QStringLiteral("installer"));
    const QCommandLineOption arch_option(QStringLiteral("arch"),
                                         QStringLiteral("Type of system architecture."),
                                         QStringLiteral("arch"));
    const QCommandLineOption identify_option(
        QStringLiteral("identify"), QStringLiteral("Identity of product."), QStringLiteral("id"));
    const QCommandLineOption os_option(
        QStringLiteral("os"), QStringLiteral("Type of operation system."), QStringLiteral("os"));
    const QCommandLineOption osversion_option(QStringLiteral("osversion"),
                                              QStringLiteral("Version of operation system."),
                                              QStringLiteral("osversion"));
    const QCommandLineOption proxy_server_option(QStringLiteral("proxy-server"),
                                                 QStringLiteral("Proxy server address."),
                                                 QStringLiteral("address"));
    const QCommandLineOption proxy_port_option(
        QStringLiteral("proxy-port"), QStringLiteral("Proxy server port."), QStringLiteral("port"));
    const QCommandLineOption proxy_username_option(
        QStringLiteral("proxy-username"), QStringLiteral("Username to connect proxy server."),
        QStringLiteral("username"));
    const QCommandLineOption proxy_password_option(
        QStringLiteral("proxy-password"), QStringLiteral("Password to connect proxy server."),
        QStringLiteral("password"));
    const QCommandLineOption show_dialog_option(QStringLiteral("show-dialog"),
                                                QStringLiteral("Show download progress bar."));

    for (const QCommandLineOption *option :
         {&root_path_option, &portable_path_option, &temp_path_option, &client_version_option,
          &server_version_option, &installer_option, &arch_option, &identify_option, &os_option,
          &osversion_option, &proxy_server_option, &proxy_port_option, &proxy_username_option,
          &proxy_password_option, &show_dialog_option})
        parser.addOption(*option);
    parser.addHelpOption();
    parser.process(arguments);

    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        QLOG_WARNING(LOG_COMPONENT, "Does not detect any system tray on this system.");
        return 1;
    }

    // Closing the progress dialog must not end the run; only the controller does.
    QApplication::setQuitOnLastWindowClosed(false);

    const QString resource_path =
        UIPathManager::getInstance()->getPath(QStringLiteral("resource_path"));
    QSettings user_settings(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("Tessaril"),
                            QStringLiteral("QuillonClient"));
    QSettings install_settings(resource_path + QStringLiteral("/conf/update.conf"),
                               QSettings::IniFormat);
    // Host and path are taken independently: the user may override either one.
    const QString host =
        user_settings
            .value(QStringLiteral("autoupdate/server_host"),
                   install_settings.value(QStringLiteral("server/host"), QString()))
            .toString();
    const QString path =
        user_settings
            .value(QStringLiteral("autoupdate/server_path"),
                   install_settings.value(QStringLiteral("server/path"), QString()))
            .toString();
    const QString server_url = host + path;
    QLOG_DEBUG(LOG_COMPONENT, "Use server url: '%s'.", qUtf8Printable(server_url));

    QList<unsigned int> server_versions;
    for (const QString &value : parser.values(server_version_option))
        server_versions << value.toUInt(nullptr, 10);

    QNetworkProxy proxy;
    proxy.setType(QNetworkProxy::NoProxy);
    if (parser.isSet(proxy_server_option)) {
        proxy.setType(QNetworkProxy::HttpProxy);
        proxy.setHostName(parser.value(proxy_server_option));
        proxy.setPort(static_cast<quint16>(parser.value(proxy_port_option).toUInt(nullptr, 10)));
        proxy.setUser(parser.value(proxy_username_option));
        proxy.setPassword(parser.value(proxy_password_option));
    }

    const QString db_path =
        UIPathManager::getInstance()->getPath(QStringLiteral("user_data_path")) +
        QStringLiteral("/db/sys.sqlite");
    // A missing or unreadable database is not an error: the defaults stand.
    SystemDB::initialize(ustring(db_path.toUtf8().constData()));
    GeneralOptions general_options;
    SystemDB::getGeneralOptions(general_options);

    AutoUpdater updater(nullptr);
    updater.setUpdateServerHost(server_url);
    updater.setCurrentClientVersion(parser.value(client_version_option).toUInt(nullptr, 10));
    updater.setConnectedServerVersions(server_versions);
    updater.setInstallerType(parser.value(installer_option));
    updater.setIdentify(parser.value(identify_option));
    updater.setOSType(parser.value(os_option));
    updater.setArch(parser.value(arch_option));
    updater.setOSVersion(parser.value(osversion_option));
    updater.setTempPath(parser.value(temp_path_option));
    updater.setRootPath(parser.value(root_path_option));
    updater.setPortablePath(parser.value(portable_path_option));
    updater.setProxy(proxy);
    updater.setBlackAndWhiteTrayIcon(general_options.use_bw_icon);
    updater.setShowDialogOption(parser.isSet(show_dialog_option));
    updater.update();

    // Any message from a second instance ends this one: both stop.
    QObject::connect(&app, &QtSingleApplication::messageReceived, &updater,
                     &AutoUpdater::terminate);

    const int status = app.exec();
    releaseUnusedFontConfiguration();
    return status;
}
