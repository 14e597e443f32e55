#ifndef QUILLON_AUTOUPDATER_TLS_TRUST_H
#define QUILLON_AUTOUPDATER_TLS_TRUST_H

class QNetworkAccessManager;
class QUrl;

// Before the first https request: trust the system's certificate store plus
// the certificates named by SSL_CERT_FILE (a PEM bundle) and SSL_CERT_DIR
// (folders of PEM files, separated by ':') when they are set, as OpenSSL's own
// tools read them. A path that cannot be read, or holds no certificate, is
// logged as a WARNING and left out. Done once per process, and only for https:
// reading certificate stores is the slowest part of a start that needs none.
void prepareTrustFor(const QUrl &url);

// Logs, as an ERROR, every certificate problem that a request of the manager
// meets (untrusted issuer, expired, wrong host name, self-signed). Nothing here
// ignores a problem: the request then fails as a network error, or as a proxy
// error through a proxy, and is retried as one.
void logCertificateProblems(QNetworkAccessManager *manager);

#endif
