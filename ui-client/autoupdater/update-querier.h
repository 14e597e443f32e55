#ifndef QUILLON_AUTOUPDATER_UPDATE_QUERIER_H
#define QUILLON_AUTOUPDATER_UPDATE_QUERIER_H

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QNetworkProxy>
#include <QObject>
#include <QSet>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;
class QTimer;
class QUrl;

// Asks the update server whether a newer client exists. One HTTP GET carries
// the description of the installed client as eight query items; the JSON
// object that comes back is handed on unexamined. Redirects are followed here
// rather than by the network library so that the count can be kept over the
// object's whole life and the final URL reused by later queries.
//
// The server is not trusted further than the answer's form: redirects may
// only lead to http or https and never from https down to http, and an
// answer larger than MAX_ANSWER_SIZE is cut off rather than held in memory.
//
// Results are only ever reported from the event loop, after query() has
// returned: exactly one finished() or error() per query.
class UpdateQuerier : public QObject {
    Q_OBJECT

public:
    // The numeric values are the updater's exit statuses.
    enum UpdateQuerierError {
        NoError = 0,
        NetworkError = 1,
        ProxyError = 2,
        HttpError = 3,
        AppError = 4,
        UnknownError = 5,
    };
    Q_ENUM(UpdateQuerierError)

    static const int DEFAULT_TIMEOUT = 120000;
    // The largest answer body accepted, in bytes. Real answers are a few
    // hundred bytes; anything near this is a broken or hostile server.
    static constexpr qint64 MAX_ANSWER_SIZE = 1024 * 1024;

    explicit UpdateQuerier(QObject *parent = nullptr);

    void query();

    QString getServerHost() const { return server_host; }
    void setServerHost(const QString &host) { server_host = host; }
    unsigned int getClientVersion() const { return client_version; }
    void setClientVersion(unsigned int version) { client_version = version; }
    QList<unsigned int> getServerVersions() const { return server_versions; }
    void setServerVersions(const QList<unsigned int> &versions) { server_versions = versions; }
    QString getIdentify() const { return identify; }
    void setIdentify(const QString &value) { identify = value; }
    QString getOsType() const { return os_type; }
    void setOsType(const QString &value) { os_type = value; }
    QString getArch() const { return arch; }
    void setArch(const QString &value) { arch = value; }
    QString getOSVersion() const { return os_version; }
    void setOSVersion(const QString &value) { os_version = value; }
    QString getInstallerType() const { return installer_type; }
    void setInstallerType(const QString &value) { installer_type = value; }
    int getTimeout() const { return timeout; }
    void setTimeout(int msec) { timeout = msec; }

    void setProxy(const QNetworkProxy &proxy);

    // Whether a redirect from the URL asked for to the resolved target may be
    // followed: the target must be http or https, and an https request must
    // not be sent on over plain http.
    static bool isAllowedRedirect(const QUrl &from, const QUrl &to);

signals:
    void finished(QJsonObject resp);
    void error(UpdateQuerier::UpdateQuerierError code, QString reason);
    void abort_request();

public slots:
    void abort();
    void receiveReply(QNetworkReply *reply);
    void queryTimeout();

private:
    void checkAnnouncedSize(QNetworkReply *reply);
    void receiveBody(QNetworkReply *reply);
    void refuseAnswer(QNetworkReply *reply);

    QNetworkAccessManager *manager;
    QTimer *timer;
    QString server_host;
    unsigned int client_version;
    QList<unsigned int> server_versions;
    QString identify;
    QString os_type;
    QString arch;
    QString installer_type;
    QString os_version;
    int timeout;
    // Redirects followed so far by this object; never reset.
    int max_redirect;
    // The body of each reply in flight, read as it arrives so that its size
    // can be bounded while it is received, not after.
    QHash<QNetworkReply *, QByteArray> received;
    // Replies cut off for being too large; their abort is on its way.
    QSet<QNetworkReply *> too_large;
};

#endif
