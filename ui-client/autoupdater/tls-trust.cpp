#include "tls-trust.h"

#include "log/log.h"

#include <QDir>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslError>
#include <QUrl>

namespace {

const char *const LOG_COMPONENT = "auto_updater";

// The certificates of one PEM file, or of every PEM file in one folder.
QList<QSslCertificate> certificatesAt(const char *variable, const QString &path, bool folder) {
    const QFileInfo info(path);
    QList<QSslCertificate> found;
    if (info.isReadable() && (folder ? info.isDir() : info.isFile())) {
        found = folder
                    ? QSslCertificate::fromPath(QDir(path).filePath(QStringLiteral("*")), QSsl::Pem,
                                                QSslCertificate::PatternSyntax::Wildcard)
                    : QSslCertificate::fromPath(path, QSsl::Pem);
    }
    if (found.isEmpty()) {
        QLOG_WARNING(LOG_COMPONENT, "No certificate read from %s '%s', ignored.", variable,
                     qUtf8Printable(path));
    } else {
        QLOG_INFO(LOG_COMPONENT, "Trust %d certificate(s) from %s '%s'.", found.size(), variable,
                  qUtf8Printable(path));
    }
    return found;
}

} // namespace

void prepareTrustFor(const QUrl &url) {
    static bool prepared = false;
    if (prepared || url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) != 0)
        return;
    prepared = true;

    QList<QSslCertificate> extra;
    const QString file = qEnvironmentVariable("SSL_CERT_FILE");
    if (!file.isEmpty())
        extra += certificatesAt("SSL_CERT_FILE", file, false);
    const QStringList folders =
        qEnvironmentVariable("SSL_CERT_DIR").split(QLatin1Char(':'), Qt::SkipEmptyParts);
    for (const QString &folder : folders)
        extra += certificatesAt("SSL_CERT_DIR", folder, true);
    if (extra.isEmpty())
        return; // Qt reads the system store by itself

    // A configuration given a list of its own no longer reads the system
    // store on demand, so the system's certificates go into the list too.
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates(QSslConfiguration::systemCaCertificates() + extra);
    QSslConfiguration::setDefaultConfiguration(configuration);
}

void logCertificateProblems(QNetworkAccessManager *manager) {
    QObject::connect(manager, &QNetworkAccessManager::sslErrors, manager,
                     [](QNetworkReply *reply, const QList<QSslError> &errors) {
                         for (const QSslError &problem : errors) {
                             QLOG_ERROR(LOG_COMPONENT, "Certificate of '%s' refused. (reason: %s)",
                                        qUtf8Printable(reply->url().host()),
                                        qUtf8Printable(problem.errorString()));
                         }
                     });
}
