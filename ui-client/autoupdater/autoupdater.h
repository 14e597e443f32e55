#ifndef QUILLON_AUTOUPDATER_AUTOUPDATER_H
#define QUILLON_AUTOUPDATER_AUTOUPDATER_H

#include "update-downloader.h"
#include "update-querier.h"

#include <QJsonObject>
#include <QList>
#include <QNetworkProxy>
#include <QObject>
#include <QString>
#include <QSystemTrayIcon>

class QProgressDialog;

// Carries one update from the query to the hand-off: asks the update server,
// downloads the updater program and the optional update pack, tells (or asks)
// the user through the tray, starts the downloaded updater and ends the event
// loop with the process's exit status.
class AutoUpdater : public QObject {
    Q_OBJECT

public:
    // Balloon display time when the update proceeds without asking.
    static const int TRAY_SHOW_MESSAGE_TIME = 5000;
    // Balloon display time while the user's permission is awaited.
    static const int TRAY_WAIT_CLICK_TIME = 60000;
    static const int MAX_QUERY_RETRY_COUNT = 10;
    static const int MAX_DOWNLOAD_RETRY_COUNT = 10;

    explicit AutoUpdater(QObject *parent = nullptr);
    ~AutoUpdater() override;

    void update();

    const QString &getUpdateServerHost() const { return server_host; }
    void setUpdateServerHost(const QString &host) { server_host = host; }
    unsigned int getCurrentClientVersion() const { return client_version; }
    void setCurrentClientVersion(unsigned int version) { client_version = version; }
    const QList<unsigned int> &getConnectedServerVersions() const { return server_versions; }
    void setConnectedServerVersions(const QList<unsigned int> &versions) {
        server_versions = versions;
    }
    const QString &getRootPath() const { return root_path; }
    void setRootPath(const QString &path) { root_path = path; }
    const QString &getPortablePath() const { return portable_path; }
    void setPortablePath(const QString &path) { portable_path = path; }
    const QString &getTempPath() const { return temp_path; }
    void setTempPath(const QString &path) { temp_path = path; }
    const QString &getIdentify() const { return identify; }
    void setIdentify(const QString &value) { identify = value; }
    const QString &getOSType() const { return os_type; }
    void setOSType(const QString &value) { os_type = value; }
    const QString &getArch() const { return arch; }
    void setArch(const QString &value) { arch = value; }
    const QString &getOSVersion() const { return os_version; }
    void setOSVersion(const QString &value) { os_version = value; }
    const QString &getInstallerType() const { return installer_type; }
    void setInstallerType(const QString &value) { installer_type = value; }
    bool IsBlackAndWhiteIcon() const { return is_use_black_and_white_icon; }
    void setBlackAndWhiteTrayIcon(bool enabled);
    bool getShowDialogOption() const { return show_dialog; }
    void setShowDialogOption(bool enabled) { show_dialog = enabled; }
    // Not kept: handed on at once to both network clients.
    void setProxy(const QNetworkProxy &proxy);

signals:
    void finished();
    void error(int error_code, QString error_string);

public slots:
    void setTrayIcon();
    void queryServerDone(QJsonObject resp);
    void downloadUpdaterDone();
    void downloadUpdatePackDone();
    void downloadProgress(qint64 bytes_received, qint64 bytes_total);
    void clickTray(QSystemTrayIcon::ActivationReason reason);
    void runUpdater();
    void handleDownloaderError(UpdateDownloader::UpdateDownloaderError code, QString reason);
    void handleQuerierError(UpdateQuerier::UpdateQuerierError code, QString reason);
    void handleError(int code, QString reason);
    void terminate();

private:
    void queryServer();
    void downloadUpdater();
    void downloadUpdatePack();
    void startUpdate();
    void initProgressDialog();
    void hideProgressDialog();
    QString getTempFilePath(const QString &name);

    QProgressDialog *progress_dialog;
    QSystemTrayIcon *tray_icon;
    UpdateQuerier *querier;
    UpdateDownloader *downloader;
    QJsonObject update_info;
    QString server_host;
    unsigned int client_version;
    QList<unsigned int> server_versions;
    QString root_path;
    QString portable_path;
    QString temp_path;
    QString identify;
    QString os_type;
    QString os_version;
    QString installer_type;
    QString arch;
    int query_retry_count;
    int download_retry_count;
    bool is_use_black_and_white_icon;
    bool show_dialog;
};

#endif
