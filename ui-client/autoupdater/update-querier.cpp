#include "update-querier.h"

#include "answer-signature.h"
#include "log/log.h"
#include "tls-trust.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>

namespace {
const char *const LOG_COMPONENT = "auto_updater";
// Redirects are counted over the object's life; 33 are followed, the 34th fails.
const int REDIRECT_LIMIT = 32;
// How much of the answer the network library may hold before readyRead has
// taken it; together with the answer limit this bounds the memory a server
// can make the querier use.
const qint64 READ_BUFFER_SIZE = 64 * 1024;

bool isScheme(const QUrl &url, const char *scheme) {
    return url.scheme().compare(QLatin1String(scheme), Qt::CaseInsensitive) == 0;
}
} // namespace

UpdateQuerier::UpdateQuerier(QObject *parent)
    : QObject(parent), manager(new QNetworkAccessManager(this)), timer(new QTimer(this)),
      client_version(0), timeout(DEFAULT_TIMEOUT), max_redirect(0) {
    // Registered by name so the code can travel through queued and
    // signature-named connections, not only through direct ones.
    qRegisterMetaType<UpdateQuerier::UpdateQuerierError>();
    logCertificateProblems(manager);
    connect(manager, &QNetworkAccessManager::finished, this, &UpdateQuerier::receiveReply);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, &UpdateQuerier::queryTimeout);
    setTimeout(DEFAULT_TIMEOUT);
    max_redirect = 0;
}

void UpdateQuerier::setProxy(const QNetworkProxy &proxy) {
    manager->setProxy(proxy);
}

bool UpdateQuerier::isAllowedRedirect(const QUrl &from, const QUrl &to) {
    // The network library would happily read a local file or a data: URL,
    // letting whoever answers the query choose what it returns; and leaving
    // https for http would hand the rest of the exchange to anyone on the path.
    if (!isScheme(to, "http") && !isScheme(to, "https"))
        return false;
    return !(isScheme(from, "https") && isScheme(to, "http"));
}

void UpdateQuerier::query() {
    QStringList versions;
    for (unsigned int version : server_versions)
        versions << QString::number(version, 10);

    QUrl url(server_host, QUrl::TolerantMode);
    // A URL that already carries a query is the stored target of an earlier
    // redirect and is sent exactly as the server gave it.
    if (!url.hasQuery()) {
        QUrlQuery items;
        items.addQueryItem(QStringLiteral("identify"), identify);
        items.addQueryItem(QStringLiteral("type"), QStringLiteral("updater"));
        items.addQueryItem(QStringLiteral("client"), QString::number(client_version, 10));
        items.addQueryItem(QStringLiteral("server"), versions.join(QLatin1Char(',')));
        items.addQueryItem(QStringLiteral("os"), os_type);
        items.addQueryItem(QStringLiteral("arch"), arch);
        items.addQueryItem(QStringLiteral("osversion"), os_version);
        items.addQueryItem(QStringLiteral("installer"), installer_type);
        url.setQuery(items);
    }

    if (Logger::IsNeedToLog(Logger::L_DEBUG, LOG_COMPONENT)) {
        QLOG_DEBUG(LOG_COMPONENT, "Query server to host '%s' with query '%s'",
                   qUtf8Printable(url.host(QUrl::FullyDecoded)), qUtf8Printable(url.query()));
    }

    timer->start(getTimeout());
    prepareTrustFor(url);
    QNetworkReply *reply = manager->get(QNetworkRequest(url));
    connect(this, &UpdateQuerier::abort_request, reply, &QNetworkReply::abort);

    // The body is taken in as it arrives, so that an answer that will not
    // fit is cut off before it is all in memory.
    reply->setReadBufferSize(READ_BUFFER_SIZE);
    received.insert(reply, QByteArray());
    connect(reply, &QNetworkReply::metaDataChanged, this,
            [this, reply]() { checkAnnouncedSize(reply); });
    connect(reply, &QNetworkReply::readyRead, this, [this, reply]() { receiveBody(reply); });
}

void UpdateQuerier::checkAnnouncedSize(QNetworkReply *reply) {
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    if (length.isValid() && length.toLongLong() > MAX_ANSWER_SIZE)
        refuseAnswer(reply);
}

void UpdateQuerier::receiveBody(QNetworkReply *reply) {
    // What arrives after the refusal is left with the reply until the abort.
    if (too_large.contains(reply))
        return;
    QByteArray &body = received[reply];
    if (body.size() + reply->bytesAvailable() > MAX_ANSWER_SIZE) {
        refuseAnswer(reply);
        return;
    }
    body += reply->readAll();
}

void UpdateQuerier::refuseAnswer(QNetworkReply *reply) {
    too_large.insert(reply);
    received[reply] = QByteArray();
    // Called from inside the reply's own signals: aborting there would finish
    // the reply while the network library is still delivering to it.
    QMetaObject::invokeMethod(
        reply, [reply]() { reply->abort(); }, Qt::QueuedConnection);
}

void UpdateQuerier::abort() {
    emit abort_request();
}

void UpdateQuerier::receiveReply(QNetworkReply *reply) {
    timer->stop();
    // We are inside the reply's own finished() signal: it may only go once
    // control is back in the event loop.
    reply->deleteLater();
    QByteArray body = received.take(reply);
    bool oversized = too_large.remove(reply);
    // The last bytes may still wait in the reply.
    if (!oversized && reply->error() == QNetworkReply::NoError) {
        oversized = body.size() + reply->bytesAvailable() > MAX_ANSWER_SIZE;
        if (!oversized)
            body += reply->readAll();
    }

    // Checked before the network error: the abort that cut the answer off
    // shows up as one, and it is the answer that failed, not the network.
    if (oversized) {
        QLOG_ERROR(LOG_COMPONENT, "Response is too large. (limit: %lld bytes)",
                   static_cast<long long>(MAX_ANSWER_SIZE));
        emit error(AppError, QStringLiteral("Response is too large."));
        return;
    }

    if (reply->error() != QNetworkReply::NoError) {
        const int code = reply->error();
        QLOG_ERROR(LOG_COMPONENT, "Request failed. (code: %d, reason: %s)", code,
                   qUtf8Printable(reply->errorString()));
        const int category = code / 100;
        // A connection-level failure is blamed on the proxy unless the manager
        // was explicitly told to go direct, even when only the library's default
        // proxy setting is in force: the caller's fallback to a direct connection
        // relies on that.
        if (category == 0 && manager->proxy().type() == QNetworkProxy::NoProxy) {
            emit error(NetworkError, QStringLiteral("Request failed since network error."));
        } else if (category <= 1) {
            emit error(ProxyError, QStringLiteral("Request failed since proxy error."));
        } else if (category == 2) {
            emit error(HttpError, QStringLiteral("Request failed since http error."));
        } else {
            emit error(UnknownError, QStringLiteral("Request failed since unknown error."));
        }
        return;
    }

    // Without a redirection target this resolves to the reply's own URL. On a
    // first query that URL carries the query items the stored host lacks, so
    // the request is repeated once against the full URL, which is then kept for
    // every later query.
    const QUrl target = reply->url().resolved(
        reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl());
    if (!target.isEmpty() && target != QUrl(server_host, QUrl::TolerantMode)) {
        QLOG_INFO(LOG_COMPONENT, "Redirect to %s", qUtf8Printable(target.toString()));
        if (!isAllowedRedirect(reply->url(), target)) {
            QLOG_ERROR(LOG_COMPONENT, "Unsafe redirection refused. (%s)",
                       qUtf8Printable(target.toString()));
            emit error(AppError, QStringLiteral("Unsafe redirection refused."));
            return;
        }
        if (max_redirect > REDIRECT_LIMIT) {
            QLOG_ERROR(LOG_COMPONENT, "Max redirection hit. (%s)",
                       qUtf8Printable(target.toString()));
            emit error(AppError, QStringLiteral("Max redirection hit."));
            return;
        }
        ++max_redirect;
        server_host = target.toString();
        query();
        return;
    }

    // A build that carries the publisher's key acts only on a signed, unexpired
    // answer: checked here, before the controller sees a name or a URL.
    if (AnswerSignature::isRequired()) {
        QJsonObject answer;
        const QString problem = AnswerSignature::findProblem(
            body, reply->rawHeader(AnswerSignature::HEADER), AnswerSignature::builtInKey(),
            QDateTime::currentSecsSinceEpoch(), &answer);
        if (!problem.isEmpty()) {
            QLOG_ERROR(LOG_COMPONENT, "Signed response refused. (reason: %s)",
                       qUtf8Printable(problem));
            emit error(AppError, QStringLiteral("Signed response refused."));
            return;
        }
        emit finished(answer);
        return;
    }

    // The HTTP status of a reply without a network error is deliberately not
    // examined: whatever the body is, it must be a JSON object.
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject()) {
        QLOG_ERROR(LOG_COMPONENT, "Response is not in Json format. (receive: '%s')",
                   qUtf8Printable(QString::fromUtf8(body)));
        emit error(AppError, QStringLiteral("Response is not in Json format."));
        return;
    }
    emit finished(document.object());
}

void UpdateQuerier::queryTimeout() {
    QLOG_ERROR(LOG_COMPONENT, "Query server timeout.");
    // The aborted reply arrives in receiveReply as a cancelled operation and is
    // classified there like any other connection-level failure.
    emit abort_request();
}
