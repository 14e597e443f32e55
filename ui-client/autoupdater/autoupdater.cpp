#include "autoupdater.h"

#include "answer-signature.h"
#include "dpiinfo.h"
#include "log/log.h"
#include "scheduling.h"
#include "texts/strtab.h"
#include "update-info.h"

#include <QAction>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFont>
#include <QGuiApplication>
#include <QIcon>
#include <QIconEngine>
#include <QJsonArray>
#include <QMenu>
#include <QPainter>
#include <QProcess>
#include <QProgressDialog>
#include <QPushButton>
#include <QThread>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *const LOG_COMPONENT = "auto_updater";

// UI string ids of the texts this program shows.
enum : int {
    STR_TRAY_EXIT = 14,
    STR_BTN_CANCEL = 79,
    STR_DOWNLOAD_DONE = 345,
    STR_APP_NAME = 365,
    STR_TRAY_UPGRADE = 432,
    STR_TRAY_UPDATING = 539,
    STR_DOWNLOADING = 672,
    STR_TRAY_CLICK_TO_UPDATE = 685,
};

const char *const ICON_NORMAL = ":/images/normal/icon_upgrade.png";
const char *const ICON_BLACK_AND_WHITE = ":/images/win-linux-black/icon_upgrade.png";

const char *const PROGRESS_DIALOG_STYLE = "QProgressDialog { \n"
                                          "  background-color: whitesmoke; \n"
                                          "  vertical-align: middle; \n"
                                          "} \n"
                                          "QProgressDialog QLabel { \n"
                                          "  color: #505A64; \n"
                                          "  font-size: 12px \n"
                                          "}";

// The size and SHA-256 digest a file must have: in a build that requires
// signed answers, those the signed answer gives (the MD5 digest alone lets
// whoever serves the files choose bytes to match it); otherwise none.
struct FileExpectation {
    qint64 size = -1;
    QByteArray sha256;
};

FileExpectation expectationOf(const QJsonObject &file) {
    FileExpectation expected;
    if (AnswerSignature::isRequired()) {
        // Checked with the signature: a whole number within a double's exact range.
        expected.size = static_cast<qint64>(file.value(QLatin1String("size")).toDouble());
        expected.sha256 = file.value(QLatin1String("sha256")).toString().toLatin1();
    }
    return expected;
}

// The temporary folder is usually shared by every user and the save names are
// predictable, so a file found there is trusted only if this user made it and
// no one else could have changed it since: a regular file (not a link), owned
// by us, not writable by group or others. Only then is its digest worth
// checking against the answer's.
bool isReusable(const QString &path, const QString &checksum, const FileExpectation &expected) {
    struct stat st;
    if (lstat(QFile::encodeName(path).constData(), &st) != 0)
        return false;
    if (!S_ISREG(st.st_mode) || st.st_uid != getuid() || (st.st_mode & (S_IWGRP | S_IWOTH))) {
        QLOG_WARNING(LOG_COMPONENT, "File '%s' is not a private file of this user, do not use it.",
                     qUtf8Printable(path));
        return false;
    }
    return UpdateDownloader::isChecksumMatched(path, checksum, expected.size, expected.sha256);
}

} // namespace

AutoUpdater::AutoUpdater(QObject *parent)
    : QObject(parent), progress_dialog(nullptr), tray_icon(nullptr), querier(nullptr),
      downloader(nullptr), client_version(0), query_retry_count(0), download_retry_count(0),
      is_use_black_and_white_icon(false), show_dialog(false) {
    tray_icon = new QSystemTrayIcon(this);
    is_use_black_and_white_icon = false;
    setTrayIcon();
    progress_dialog = nullptr;

    querier = new UpdateQuerier(this);
    connect(querier, &UpdateQuerier::finished, this, &AutoUpdater::queryServerDone);
    connect(querier, &UpdateQuerier::error, this, &AutoUpdater::handleQuerierError);

    downloader = new UpdateDownloader(this);
    connect(downloader, &UpdateDownloader::error, this, &AutoUpdater::handleDownloaderError);

    connect(this, &AutoUpdater::error, this, &AutoUpdater::handleError);
    connect(this, &AutoUpdater::finished, this, &AutoUpdater::terminate);
}

AutoUpdater::~AutoUpdater() {
    // The menu has no parent (a tray icon cannot own it), so it is ours to free.
    if (QMenu *menu = tray_icon->contextMenu()) {
        tray_icon->setContextMenu(nullptr);
        delete menu;
    }
    delete progress_dialog;
}

void AutoUpdater::setBlackAndWhiteTrayIcon(bool enabled) {
    is_use_black_and_white_icon = enabled;
    setTrayIcon();
}

void AutoUpdater::setProxy(const QNetworkProxy &proxy) {
    querier->setProxy(proxy);
    downloader->setProxy(proxy);
}

void AutoUpdater::update() {
    QLOG_INFO(LOG_COMPONENT, "Start auto updater.");
    queryServer();
}

void AutoUpdater::queryServer() {
    QLOG_INFO(LOG_COMPONENT, "Start query update server.");
    query_retry_count = 0;
    querier->setServerHost(server_host);
    querier->setClientVersion(client_version);
    querier->setServerVersions(server_versions);
    querier->setIdentify(identify);
    querier->setOsType(os_type);
    querier->setArch(arch);
    querier->setOSVersion(os_version);
    querier->setInstallerType(installer_type);
    querier->query();
}

void AutoUpdater::queryServerDone(QJsonObject resp) {
    QLOG_INFO(LOG_COMPONENT, "Query update server done.");
    if (resp.isEmpty()) {
        QLOG_INFO(LOG_COMPONENT, "Updater return empty response. No need to update.");
        emit finished();
        return;
    }

    update_info = resp;
    if (!update_info.contains(QLatin1String("updater"))) {
        QLOG_ERROR(LOG_COMPONENT, "Updater server provide invalid response.");
        emit error(UpdateQuerier::AppError, QStringLiteral("No updater information in response."));
        return;
    }
    // Names become files in the temporary folder and URLs are fetched: refuse
    // an answer that would write elsewhere or open anything but a web resource,
    // before any file is made or any request sent.
    const QString problem = UpdateInfo::findProblem(update_info);
    if (!problem.isEmpty()) {
        QLOG_ERROR(LOG_COMPONENT, "Updater server provide unsafe response. (reason: %s)",
                   qUtf8Printable(problem));
        emit error(UpdateQuerier::AppError,
                   QStringLiteral("Unsafe update information in response."));
        return;
    }

    tray_icon->setToolTip(StrTable::LoadStr(STR_DOWNLOADING) + QStringLiteral("..."));
    tray_icon->show();
    // Give the desktop a moment to place the icon before it is set again:
    // some trays drop an icon set while the item is still being embedded.
    QThread::msleep(200);
    setTrayIcon();
    downloadUpdater();
}

void AutoUpdater::downloadUpdater() {
    const QJsonObject updater = update_info.value(QLatin1String("updater")).toObject();
    const QString url = updater.value(QLatin1String("url")).toString();
    const QString checksum = updater.value(QLatin1String("checksum")).toString();
    const QString save_path = getTempFilePath(updater.value(QLatin1String("name")).toString());
    const FileExpectation expected = expectationOf(updater);
    QLOG_INFO(LOG_COMPONENT, "Start download updater.");

    if (isReusable(save_path, checksum, expected)) {
        QLOG_INFO(LOG_COMPONENT, "Updater file exists, use local file.");
        downloadUpdaterDone();
        return;
    }

    QLOG_DEBUG(LOG_COMPONENT, "Start download updater. (url: %s, checksum: %s, save_path: %s)",
               qUtf8Printable(url), qUtf8Printable(checksum), qUtf8Printable(save_path));
    connect(downloader, &UpdateDownloader::finished, this, &AutoUpdater::downloadUpdaterDone);
    download_retry_count = 0;
    downloader->setDownloadUrl(url);
    downloader->setExpectChecksum(checksum);
    downloader->setExpectSize(expected.size);
    downloader->setExpectSha256(expected.sha256);
    downloader->setSavePath(save_path);
    downloader->download();
}

void AutoUpdater::downloadUpdaterDone() {
    disconnect(downloader, &UpdateDownloader::finished, this, &AutoUpdater::downloadUpdaterDone);
    QLOG_INFO(LOG_COMPONENT, "Download updater done.");
    if (update_info.contains(QLatin1String("update_pack"))) {
        QLOG_INFO(LOG_COMPONENT, "Updater requires update pack, download it.");
        downloadUpdatePack();
    } else {
        startUpdate();
    }
}

void AutoUpdater::downloadUpdatePack() {
    const QJsonObject pack = update_info.value(QLatin1String("update_pack")).toObject();
    const QString url = pack.value(QLatin1String("url")).toString();
    const QString checksum = pack.value(QLatin1String("checksum")).toString();
    const QString save_path = getTempFilePath(pack.value(QLatin1String("name")).toString());
    const FileExpectation expected = expectationOf(pack);
    QLOG_INFO(LOG_COMPONENT, "Start download update pack.");

    if (isReusable(save_path, checksum, expected)) {
        QLOG_INFO(LOG_COMPONENT, "Update pack file exists, use local file.");
        downloadUpdatePackDone();
        return;
    }

    QLOG_DEBUG(LOG_COMPONENT, "Start download update pack. (url: %s, checksum: %s, save_path: %s)",
               qUtf8Printable(url), qUtf8Printable(checksum), qUtf8Printable(save_path));
    // Only the pack reports progress: the updater program is small.
    connect(downloader, &UpdateDownloader::finished, this, &AutoUpdater::downloadUpdatePackDone);
    connect(downloader, &UpdateDownloader::downloadProgress, this, &AutoUpdater::downloadProgress);
    download_retry_count = 0;
    downloader->setDownloadUrl(url);
    downloader->setExpectChecksum(checksum);
    downloader->setExpectSize(expected.size);
    downloader->setExpectSha256(expected.sha256);
    downloader->setSavePath(save_path);
    downloader->download();
}

void AutoUpdater::downloadUpdatePackDone() {
    disconnect(downloader, &UpdateDownloader::finished, this, &AutoUpdater::downloadUpdatePackDone);
    disconnect(downloader, &UpdateDownloader::downloadProgress, this,
               &AutoUpdater::downloadProgress);
    QLOG_INFO(LOG_COMPONENT, "Download update pack done.");
    startUpdate();
}

QString AutoUpdater::getTempFilePath(const QString &name) {
    // The user id keeps several users' downloads apart in a shared temporary
    // folder; the fixed name lets a later run find and reuse a complete file.
    return temp_path + QDir::separator() + QStringLiteral("qlln_") + QString::number(getuid()) +
           QLatin1Char('_') + name;
}

void AutoUpdater::handleQuerierError(UpdateQuerier::UpdateQuerierError code, QString reason) {
    const bool retryable = code == UpdateQuerier::ProxyError || code == UpdateQuerier::NetworkError;
    if (query_retry_count < MAX_QUERY_RETRY_COUNT && retryable) {
        QLOG_INFO(LOG_COMPONENT, "Query failed, try again. (code: %d, reason: %s)",
                  static_cast<int>(code), qUtf8Printable(reason));
        ++query_retry_count;
        querier->query();
    } else if (code == UpdateQuerier::ProxyError) {
        query_retry_count = 0;
        QLOG_ERROR(LOG_COMPONENT, "Querier connect proxy failed, fallback to no proxy.");
        querier->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        querier->query();
    } else {
        emit error(static_cast<int>(code), reason);
    }
}

void AutoUpdater::handleDownloaderError(UpdateDownloader::UpdateDownloaderError code,
                                        QString reason) {
    const bool retryable =
        code == UpdateDownloader::ProxyError || code == UpdateDownloader::NetworkError;
    if (download_retry_count < MAX_DOWNLOAD_RETRY_COUNT && retryable) {
        QLOG_INFO(LOG_COMPONENT, "Download failed, try again. (code: %d, reason: %s)",
                  static_cast<int>(code), qUtf8Printable(reason));
        ++download_retry_count;
        downloader->download();
    } else if (code == UpdateDownloader::ProxyError) {
        download_retry_count = 0;
        QLOG_ERROR(LOG_COMPONENT, "Downlaoder connect proxy failed, fallback to no proxy.");
        downloader->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        downloader->download();
    } else {
        emit error(static_cast<int>(code), reason);
    }
}

void AutoUpdater::handleError(int code, QString reason) {
    QLOG_ERROR(LOG_COMPONENT, "Fail to run auto update. (error code: %d, reason: %s)", code,
               qUtf8Printable(reason));
    hideProgressDialog();
    QCoreApplication::exit(code);
}

void AutoUpdater::terminate() {
    QLOG_INFO(LOG_COMPONENT, "Auto updater finished.");
    hideProgressDialog();
    QCoreApplication::exit(0);
}

// ---- tray notification and progress dialog

namespace {
// The tray icon's picture, decoded when something first draws it. A run that
// finds nothing to do never shows the icon, and decoding it at start-up, which
// also loads every image format plugin, was a noticeable part of such a run.
class DeferredIconEngine : public QIconEngine {
public:
    explicit DeferredIconEngine(const QString &path) : file_name(path) {}
    void paint(QPainter *painter, const QRect &rect, QIcon::Mode mode,
               QIcon::State state) override {
        icon().paint(painter, rect, Qt::AlignCenter, mode, state);
    }
    QPixmap pixmap(const QSize &size, QIcon::Mode mode, QIcon::State state) override {
        return icon().pixmap(size, mode, state);
    }
    QSize actualSize(const QSize &size, QIcon::Mode mode, QIcon::State state) override {
        return icon().actualSize(size, mode, state);
    }
    QList<QSize> availableSizes(QIcon::Mode mode, QIcon::State state) const override {
        return icon().availableSizes(mode, state);
    }
    QIconEngine *clone() const override { return new DeferredIconEngine(file_name); }

private:
    const QIcon &icon() const {
        if (decoded.isNull())
            decoded = QIcon(file_name);
        return decoded;
    }
    const QString file_name;
    mutable QIcon decoded;
};
} // namespace

void AutoUpdater::setTrayIcon() {
    tray_icon->setIcon(QIcon(new DeferredIconEngine(
        QString::fromLatin1(IsBlackAndWhiteIcon() ? ICON_BLACK_AND_WHITE : ICON_NORMAL))));
}

void AutoUpdater::startUpdate() {
    const QJsonObject updater = update_info.value(QLatin1String("updater")).toObject();
    const bool need_user_permit = updater.value(QLatin1String("need_user_permit")).toBool();

    if (!need_user_permit) {
        tray_icon->setToolTip(StrTable::LoadStr(STR_TRAY_UPDATING));
        tray_icon->showMessage(StrTable::LoadStr(STR_APP_NAME),
                               StrTable::LoadStr(STR_TRAY_UPDATING), QSystemTrayIcon::Information,
                               TRAY_SHOW_MESSAGE_TIME);
        runUpdater();
        return;
    }

    tray_icon->setToolTip(StrTable::LoadStr(STR_TRAY_CLICK_TO_UPDATE));
    tray_icon->showMessage(StrTable::LoadStr(STR_APP_NAME),
                           StrTable::LoadStr(STR_TRAY_CLICK_TO_UPDATE),
                           QSystemTrayIcon::Information, TRAY_WAIT_CLICK_TIME);
    // On X11 Qt reports any press on the icon while the balloon shows as a
    // click on the balloon as well. A right press there asks for the menu and a
    // middle press means nothing, so neither may count as permission.
    connect(tray_icon, &QSystemTrayIcon::messageClicked, this, [this] {
        if (QGuiApplication::mouseButtons() & (Qt::RightButton | Qt::MiddleButton))
            return;
        runUpdater();
    });
    connect(tray_icon, &QSystemTrayIcon::activated, this, &AutoUpdater::clickTray);

    QMenu *menu = new QMenu();
    QAction *upgrade = menu->addAction(StrTable::LoadStr(STR_TRAY_UPGRADE));
    connect(upgrade, &QAction::triggered, this, &AutoUpdater::runUpdater);
    QAction *exit_action = menu->addAction(StrTable::LoadStr(STR_TRAY_EXIT));
    connect(exit_action, &QAction::triggered, this, &AutoUpdater::terminate);
    tray_icon->setContextMenu(menu);
    // No timer: the balloon's display time is only a hint to the desktop, and
    // the run waits for the user (or a second instance's stop) without limit.
}

void AutoUpdater::clickTray(QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::DoubleClick || reason == QSystemTrayIcon::Trigger)
        runUpdater();
}

void AutoUpdater::downloadProgress(qint64 bytes_received, qint64 bytes_total) {
    if (!getShowDialogOption())
        return;

    if (!progress_dialog) {
        progress_dialog = new QProgressDialog(nullptr, Qt::WindowFlags());
        initProgressDialog();
        connect(progress_dialog, &QProgressDialog::canceled, this, &AutoUpdater::terminate);
        progress_dialog->show();
    }

    if (bytes_received == bytes_total)
        progress_dialog->setLabelText(StrTable::LoadStr(STR_DOWNLOAD_DONE));
    // A zero total would divide by zero; the value just stays where it was.
    if (bytes_total != 0)
        progress_dialog->setValue(static_cast<int>((100 * bytes_received) / bytes_total));
}

void AutoUpdater::initProgressDialog() {
    progress_dialog->setWindowTitle(StrTable::LoadStr(STR_APP_NAME));
    progress_dialog->setWindowIcon(QIcon(QString::fromLatin1(ICON_NORMAL)));
    progress_dialog->setWindowFlags(Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    progress_dialog->setValue(0);
    progress_dialog->setRange(0, 100);
    progress_dialog->setAutoReset(false);
    progress_dialog->setLabelText(StrTable::LoadStr(STR_DOWNLOADING));

    QFont font(QStringLiteral("verdana"));
    font.setItalic(false);
    progress_dialog->setFont(font);

    progress_dialog->setModal(true);
    progress_dialog->setWindowModality(Qt::WindowModal);

    QPushButton *cancel = new QPushButton(StrTable::LoadStr(STR_BTN_CANCEL), progress_dialog);
    progress_dialog->setCancelButton(cancel);

    DPIinfo *dpi = DPIinfo::getInstance();
    progress_dialog->setFixedWidth(static_cast<int>(dpi->getDPI() * 400.0));
    progress_dialog->setStyleSheet(
        dpi->getScaledStyleSheet(QString::fromLatin1(PROGRESS_DIALOG_STYLE)));
}

void AutoUpdater::hideProgressDialog() {
    if (progress_dialog)
        progress_dialog->hide();
}

// ---- hand-off

void AutoUpdater::runUpdater() {
    // Several ways lead here (balloon, icon, menu); once the updater is being
    // started, further clicks must not start it a second time.
    disconnect(tray_icon, nullptr, this, nullptr);
    if (QMenu *menu = tray_icon->contextMenu())
        menu->setEnabled(false);

    const QJsonObject updater = update_info.value(QLatin1String("updater")).toObject();
    const QJsonObject pack = update_info.value(QLatin1String("update_pack")).toObject();
    const QString program = getTempFilePath(updater.value(QLatin1String("name")).toString());

    QLOG_INFO(LOG_COMPONENT, "Start running updater.");
    QFile::setPermissions(program, QFile::permissions(program) | QFileDevice::ExeOwner);

    QStringList arguments;
    arguments << QStringLiteral("--root-path") << root_path << QStringLiteral("--portable-path")
              << portable_path;
    if (!pack.isEmpty()) {
        arguments << QStringLiteral("--update-pack-path")
                  << getTempFilePath(pack.value(QLatin1String("name")).toString());
    }
    if (update_info.contains(QLatin1String("updater_args"))) {
        // Each element is one argument; a non-text element still takes its
        // place, as an empty argument.
        const QJsonArray extra = update_info.value(QLatin1String("updater_args")).toArray();
        for (const QJsonValue &value : extra)
            arguments << value.toString();
    }

    QLOG_DEBUG(LOG_COMPONENT, "Start running updater with commmand: %s %s", qUtf8Printable(program),
               qUtf8Printable(arguments.join(QLatin1Char(' '))));
    // The updater starts with the scheduling the client had, not this run's.
    leaveBackgroundScheduling();
    // A list, not a shell command line: nothing is quoted, split or expanded.
    if (!QProcess::startDetached(program, arguments, QStringLiteral("/")))
        QLOG_ERROR(LOG_COMPONENT, "Fail to start updater.");
    emit finished();
}
