#include "update-querier.h"

#include "fake-http-server.h"
#include "log-capture.h"
#include "loopback-daemon.h"

#include <QJsonDocument>
#include <QNetworkProxy>
#include <QSignalSpy>
#include <QSslSocket>
#include <QUrlQuery>
#include <QtTest>

#include <memory>

using Items = QList<QPair<QString, QString>>;

namespace {

// Receives the querier's error through a queued, signature-named connection:
// the route that needs the code's type registered under its full name.
class QueuedErrorRecorder : public QObject {
    Q_OBJECT
public:
    QList<int> codes;
public slots:
    void record(UpdateQuerier::UpdateQuerierError code, const QString &) { codes << code; }
};

UpdateQuerier::UpdateQuerierError codeOf(const QSignalSpy &spy, int i = 0) {
    return spy.at(i).at(0).value<UpdateQuerier::UpdateQuerierError>();
}

// Serves "/chain/<n>": a redirect to "/chain/<n-1>" while n > 0, "{}" at 0.
// The query of each hop is kept, and "abs=1" in it asks for absolute Locations.
HttpResponse chainHandler(const FakeHttpServer &server, const HttpRequest &request) {
    const QStringList parts = request.path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (parts.size() != 2 || parts.at(0) != QLatin1String("chain"))
        return HttpResponse::withStatus(404);
    const int left = parts.at(1).toInt();
    if (left == 0)
        return HttpResponse::json("{}");
    const QString next = QStringLiteral("/chain/%1?%2").arg(left - 1).arg(request.query);
    const bool absolute = QUrlQuery(request.query).queryItemValue(QStringLiteral("abs")) == "1";
    return HttpResponse::redirect(absolute ? server.url(next).toUtf8() : next.toUtf8());
}

// A JSON object of exactly `size` bytes.
QByteArray jsonOfSize(int size) {
    const QByteArray frame = "{\"pad\":\"\"}";
    return QByteArray("{\"pad\":\"") + QByteArray(size - frame.size(), 'x') + "\"}";
}

// body in HTTP/1.1 chunked transfer coding, in pieces of at most `piece` bytes.
QByteArray chunked(const QByteArray &body, int piece) {
    QByteArray coded;
    for (int at = 0; at < body.size(); at += piece) {
        const QByteArray part = body.mid(at, piece);
        coded += QByteArray::number(part.size(), 16) + "\r\n" + part + "\r\n";
    }
    return coded + "0\r\n\r\n";
}

} // namespace

class TestUpdateQuerier : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void queryItems_data();
    void queryItems();
    void firstQueryIsSentTwiceThenStored();
    void answers_data();
    void answers();
    void redirectsCountedOverLifetime_data();
    void redirectsCountedOverLifetime();
    void failures_data();
    void failures();
    void answerSizeIsBounded_data();
    void answerSizeIsBounded();
    void unsafeRedirectsAreRefused_data();
    void unsafeRedirectsAreRefused();
    void isAllowedRedirect_data();
    void isAllowedRedirect();

private:
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<FakeHttpServer> server;
};

void TestUpdateQuerier::init() {
    log = std::make_unique<LogCapture>();
    QVERIFY(log->isValid());
    server = std::make_unique<FakeHttpServer>();
    QVERIFY(server->listen());
}

void TestUpdateQuerier::cleanup() {
    server.reset();
    log.reset();
}

void TestUpdateQuerier::queryItems_data() {
    QTest::addColumn<QString>("pathAndQuery");
    QTest::addColumn<QString>("identify");
    QTest::addColumn<unsigned int>("client");
    QTest::addColumn<QList<unsigned int>>("servers");
    QTest::addColumn<QString>("osVersion");
    QTest::addColumn<Items>("expected");
    QTest::addColumn<int>("requests");

    const auto items = [](const QString &identify, const QString &client, const QString &servers,
                          const QString &osVersion) {
        return Items{{"identify", identify},   {"type", "updater"}, {"client", client},
                     {"server", servers},      {"os", "Linux"},     {"arch", "i386"},
                     {"osversion", osVersion}, {"installer", "deb"}};
    };

    QTest::newRow("eight items in order")
        << "/update"
        << "QLLN-7f3a" << 50100u << QList<unsigned int>{30200, 30105, 7} << "Debian GNU/Linux 12"
        << items("QLLN-7f3a", "50100", "30200,30105,7", "Debian GNU/Linux 12") << 2;
    QTest::newRow("empty server list still sends server")
        << "/update"
        << "QLLN-7f3a" << 0u << QList<unsigned int>{} << "12" << items("QLLN-7f3a", "0", "", "12")
        << 2;
    QTest::newRow("empty values are sent") << "/update"
                                           << "" << 4294967295u << QList<unsigned int>{1} << ""
                                           << items("", "4294967295", "1", "") << 2;
    QTest::newRow("delimiters and non-ASCII survive the encoding")
        << "/update" << QString::fromUtf8("a&b=c d+e#f/é") << 1u << QList<unsigned int>{2}
        << QString::fromUtf8("Ubuntu 22.04 «LTS»")
        << items(QString::fromUtf8("a&b=c d+e#f/é"), "1", "2",
                 QString::fromUtf8("Ubuntu 22.04 «LTS»"))
        << 2;
    QTest::newRow("a host with a query is requested as given")
        << "/update?channel=beta&v=3"
        << "QLLN-7f3a" << 50100u << QList<unsigned int>{30200} << "12"
        << Items{{"channel", "beta"}, {"v", "3"}} << 1;
}

void TestUpdateQuerier::queryItems() {
    QFETCH(QString, pathAndQuery);
    QFETCH(QString, identify);
    QFETCH(unsigned int, client);
    QFETCH(QList<unsigned int>, servers);
    QFETCH(QString, osVersion);
    QFETCH(Items, expected);
    QFETCH(int, requests);

    server->setHandler([](const HttpRequest &) { return HttpResponse::json("{\"ok\":true}"); });
    UpdateQuerier querier;
    querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    querier.setServerHost(server->url(pathAndQuery));
    querier.setIdentify(identify);
    querier.setClientVersion(client);
    querier.setServerVersions(servers);
    querier.setOsType("Linux");
    querier.setArch("i386");
    querier.setOSVersion(osVersion);
    querier.setInstallerType("deb");
    QSignalSpy finished(&querier, &UpdateQuerier::finished);
    QSignalSpy failed(&querier, &UpdateQuerier::error);

    querier.query();
    QVERIFY(finished.wait());
    QCOMPARE(failed.count(), 0);
    QCOMPARE(finished.at(0).at(0).toJsonObject().value("ok").toBool(), true);

    QCOMPARE(server->requestCount(), requests);
    for (const HttpRequest &request : server->requests()) {
        QCOMPARE(request.method, QByteArray("GET"));
        QCOMPARE(request.path, QStringLiteral("/update"));
        QCOMPARE(QUrlQuery(request.query).queryItems(QUrl::FullyDecoded), expected);
        // Only the network library's own headers: no Range, no cookies, no auth.
        QVERIFY(!request.hasHeader("Range"));
        QVERIFY(!request.hasHeader("Authorization"));
    }
    if (requests == 1)
        QCOMPARE(
            server->requests().at(0).target,
            QUrl(server->url(pathAndQuery)).toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority));
}

void TestUpdateQuerier::firstQueryIsSentTwiceThenStored() {
    server->setHandler([](const HttpRequest &) { return HttpResponse::json("{}"); });
    UpdateQuerier querier;
    querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    const QString host = server->url("/api/update");
    querier.setServerHost(host);
    querier.setIdentify("QLLN-1");
    QSignalSpy finished(&querier, &UpdateQuerier::finished);

    querier.query();
    QVERIFY(finished.wait());
    QCOMPARE(finished.count(), 1);
    QCOMPARE(server->requestCount(), 2);
    const HttpRequest first = server->requests().at(0);
    QCOMPARE(server->requests().at(1).target, first.target);

    // The full URL, items included, replaces the configured one.
    const QUrl full(server->url(QString::fromLatin1(first.target)));
    QCOMPARE(QUrl(querier.getServerHost()), full);
    QCOMPARE(log->messages("INFO"), QStringList{"Redirect to " + full.toString()});
    const QString debugLine =
        QStringLiteral("Query server to host '127.0.0.1' with query '%1'").arg(full.query());
    QCOMPARE(log->messages("DEBUG"), (QStringList{debugLine, debugLine}));

    // A later query goes straight to the stored URL, with the stored items,
    // even though the settings changed meanwhile.
    querier.setIdentify("QLLN-2");
    querier.query();
    QVERIFY(finished.wait());
    QCOMPARE(server->requestCount(), 3);
    QCOMPARE(server->requests().at(2).target, first.target);
    QCOMPARE(log->messages("INFO").size(), 1);
}

void TestUpdateQuerier::answers_data() {
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("location");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("delivered");

    QTest::newRow("empty object") << 200 << QByteArray() << QByteArray("{}") << true;
    QTest::newRow("status 202 is not examined")
        << 202 << QByteArray() << QByteArray("{\"a\":1}") << true;
    QTest::newRow("status 300 without target is not examined")
        << 300 << QByteArray() << QByteArray("{\"a\":2}") << true;
    QTest::newRow("redirect to itself is the answer")
        << 302 << QByteArray("<self>") << QByteArray("{\"a\":3}") << true;
    QTest::newRow("array") << 200 << QByteArray() << QByteArray("[]") << false;
    QTest::newRow("empty body") << 200 << QByteArray() << QByteArray() << false;
    QTest::newRow("invalid text") << 200 << QByteArray() << QByteArray("{\"updater\": ") << false;
}

void TestUpdateQuerier::answers() {
    QFETCH(int, status);
    QFETCH(QByteArray, location);
    QFETCH(QByteArray, body);
    QFETCH(bool, delivered);

    // A host with a query part is used as it stands, so one request is one answer.
    const QString host = server->url("/update?v=1");
    HttpResponse response = HttpResponse::withStatus(status, body);
    if (!location.isEmpty())
        response.header("Location", location == "<self>" ? host.toUtf8() : location);
    server->enqueue(response);

    UpdateQuerier querier;
    querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    querier.setServerHost(host);
    QSignalSpy finished(&querier, &UpdateQuerier::finished);
    QSignalSpy failed(&querier, &UpdateQuerier::error);
    querier.query();
    QTRY_COMPARE(finished.count() + failed.count(), 1);
    QCOMPARE(server->requestCount(), 1);

    if (delivered) {
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toJsonObject(), QJsonDocument::fromJson(body).object());
        QVERIFY(log->messages("ERROR").isEmpty());
    } else {
        QCOMPARE(codeOf(failed), UpdateQuerier::AppError);
        QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Response is not in Json format."));
        QCOMPARE(log->messages("ERROR"), QStringList{"Response is not in Json format. (receive: '" +
                                                     QString::fromUtf8(body) + "')"});
    }
}

void TestUpdateQuerier::redirectsCountedOverLifetime_data() {
    QTest::addColumn<QList<int>>("chains"); // redirects before the answer, one query each
    QTest::addColumn<bool>("absolute");
    QTest::addColumn<bool>("lastSucceeds");

    QTest::newRow("33 redirects are followed") << QList<int>{33} << false << true;
    QTest::newRow("the 34th redirect fails") << QList<int>{34} << false << false;
    QTest::newRow("two queries share 33") << QList<int>{20, 13} << false << true;
    QTest::newRow("second query hits the 34th") << QList<int>{20, 14} << true << false;
}

void TestUpdateQuerier::redirectsCountedOverLifetime() {
    QFETCH(QList<int>, chains);
    QFETCH(bool, absolute);
    QFETCH(bool, lastSucceeds);

    FakeHttpServer &s = *server;
    server->setHandler([&s](const HttpRequest &r) { return chainHandler(s, r); });
    UpdateQuerier querier;
    querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    QSignalSpy finished(&querier, &UpdateQuerier::finished);
    QSignalSpy failed(&querier, &UpdateQuerier::error);

    int followed = 0;
    for (int i = 0; i < chains.size(); ++i) {
        const bool last = i == chains.size() - 1;
        server->clearRequests();
        // The controller hands the host over again before every query; the
        // redirect count stays with the object regardless.
        querier.setServerHost(server->url(
            QStringLiteral("/chain/%1?abs=%2").arg(chains.at(i)).arg(absolute ? 1 : 0)));
        querier.query();
        QTRY_COMPARE(finished.count() + failed.count(), i + 1);
        if (!last || lastSucceeds) {
            QCOMPARE(finished.count(), i + 1);
            QCOMPARE(server->requestCount(), chains.at(i) + 1);
            followed += chains.at(i);
        }
    }

    const QStringList redirects = log->messages("INFO");
    if (lastSucceeds) {
        QCOMPARE(failed.count(), 0);
        QCOMPARE(redirects.size(), followed);
        QVERIFY(log->messages("ERROR").isEmpty());
        return;
    }

    // 33 followed over the object's life; the reply to the 34th request is the
    // 34th redirect, which is logged and refused.
    QCOMPARE(followed + server->requestCount(), 34);
    QCOMPARE(codeOf(failed), UpdateQuerier::AppError);
    QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Max redirection hit."));
    QCOMPARE(redirects.size(), 34);
    const int left = chains.last() - server->requestCount();
    const QString refused =
        server->url(QStringLiteral("/chain/%1?abs=%2").arg(left).arg(absolute ? 1 : 0));
    QCOMPARE(redirects.last(), "Redirect to " + refused);
    QCOMPARE(log->messages("ERROR"), QStringList{"Max redirection hit. (" + refused + ")"});
}

void TestUpdateQuerier::failures_data() {
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("proxy"); // "none": NoProxy set; "unset": never set; "server"
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<int>("networkError");

    const QString network = "Request failed since network error.";
    const QString proxy = "Request failed since proxy error.";
    QTest::newRow("refused, no proxy") << "refused"
                                       << "none" << int(UpdateQuerier::NetworkError) << network
                                       << int(QNetworkReply::ConnectionRefusedError);
    QTest::newRow("timeout, no proxy") << "silence"
                                       << "none" << int(UpdateQuerier::NetworkError) << network
                                       << int(QNetworkReply::OperationCanceledError);
    QTest::newRow("timeout, proxy never set") << "silence"
                                              << "unset" << int(UpdateQuerier::ProxyError) << proxy
                                              << int(QNetworkReply::OperationCanceledError);
    QTest::newRow("abort, no proxy") << "abort"
                                     << "none" << int(UpdateQuerier::NetworkError) << network
                                     << int(QNetworkReply::OperationCanceledError);
    QTest::newRow("proxy demands credentials")
        << "407"
        << "server" << int(UpdateQuerier::ProxyError) << proxy
        << int(QNetworkReply::ProxyAuthenticationRequiredError);
    QTest::newRow("404") << "404"
                         << "none" << int(UpdateQuerier::HttpError)
                         << "Request failed since http error."
                         << int(QNetworkReply::ContentNotFoundError);
    QTest::newRow("403") << "403"
                         << "unset" << int(UpdateQuerier::HttpError)
                         << "Request failed since http error."
                         << int(QNetworkReply::ContentAccessDenied);
    QTest::newRow("500") << "500"
                         << "none" << int(UpdateQuerier::UnknownError)
                         << "Request failed since unknown error."
                         << int(QNetworkReply::InternalServerError);
    QTest::newRow("unknown scheme")
        << "scheme"
        << "none" << int(UpdateQuerier::UnknownError) << "Request failed since unknown error."
        << int(QNetworkReply::ProtocolUnknownError);
}

void TestUpdateQuerier::failures() {
    QFETCH(QString, fault);
    QFETCH(QString, proxy);
    QFETCH(int, code);
    QFETCH(QString, reason);
    QFETCH(int, networkError);

    QString host = server->url("/update?v=1");
    if (fault == "refused") {
        const quint16 port = pickFreePort();
        QVERIFY(port != 0);
        host = QStringLiteral("http://127.0.0.1:%1/update?v=1").arg(port);
    } else if (fault == "scheme") {
        host = "qlln://127.0.0.1/update?v=1";
    } else if (fault == "silence" || fault == "abort") {
        server->enqueue(HttpResponse::silence());
    } else {
        server->enqueue(HttpResponse::withStatus(fault.toInt(), "{}"));
    }

    UpdateQuerier querier;
    if (proxy == "none")
        querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    else if (proxy == "server")
        querier.setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server->port()));
    if (fault == "silence")
        querier.setTimeout(300);
    querier.setServerHost(host);
    QSignalSpy finished(&querier, &UpdateQuerier::finished);
    QSignalSpy failed(&querier, &UpdateQuerier::error);
    QueuedErrorRecorder recorder;
    QVERIFY(connect(&querier, SIGNAL(error(UpdateQuerier::UpdateQuerierError, QString)), &recorder,
                    SLOT(record(UpdateQuerier::UpdateQuerierError, QString)),
                    Qt::QueuedConnection));

    querier.query();
    // Never reported from inside query(): the caller may end the event loop in
    // reaction, which only works from within it.
    QCOMPARE(failed.count(), 0);
    if (fault == "abort") {
        QTRY_COMPARE(server->requestCount(), 1);
        querier.abort();
    }
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(finished.count(), 0);
    QCOMPARE(int(codeOf(failed)), code);
    QCOMPARE(failed.at(0).at(1).toString(), reason);
    QTRY_COMPARE(recorder.codes, QList<int>{code});

    const QStringList errors = log->messages("ERROR");
    const QString requestFailed =
        QStringLiteral("Request failed. (code: %1, reason: ").arg(networkError);
    if (fault == "silence") {
        QCOMPARE(errors.size(), 2);
        QCOMPARE(errors.at(0), QStringLiteral("Query server timeout."));
    } else {
        QCOMPARE(errors.size(), 1);
    }
    QVERIFY2(errors.last().startsWith(requestFailed), qPrintable(errors.last()));
}

void TestUpdateQuerier::answerSizeIsBounded_data() {
    QTest::addColumn<int>("size");            // of the JSON answer
    QTest::addColumn<QString>("framing");     // "length", "chunked"
    QTest::addColumn<int>("sentBeforeStall"); // -1: all of it
    QTest::addColumn<bool>("delivered");

    const int limit = int(UpdateQuerier::MAX_ANSWER_SIZE);
    QCOMPARE(limit, 1048576);
    QTest::newRow("1 MiB, length announced") << limit << "length" << -1 << true;
    QTest::newRow("1 MiB + 1, length announced") << limit + 1 << "length" << -1 << false;
    // Refused on the header alone: nothing of the body ever comes.
    QTest::newRow("2 MiB announced, nothing sent") << 2 * limit << "length" << 0 << false;
    QTest::newRow("1 MiB, chunked") << limit << "chunked" << -1 << true;
    QTest::newRow("1 MiB + 1, chunked") << limit + 1 << "chunked" << -1 << false;
    // Counted as it arrives: cut off without waiting for an end that the
    // server never sends.
    QTest::newRow("chunked without end, past 1 MiB")
        << 8 * limit << "chunked" << limit + 64 * 1024 << false;
}

void TestUpdateQuerier::answerSizeIsBounded() {
    QFETCH(int, size);
    QFETCH(QString, framing);
    QFETCH(int, sentBeforeStall);
    QFETCH(bool, delivered);

    const QByteArray answer = jsonOfSize(size);
    QCOMPARE(answer.size(), size);
    QVERIFY(QJsonDocument::fromJson(answer).isObject());
    HttpResponse response = HttpResponse::json(answer);
    if (framing == "chunked") {
        response.body = chunked(answer, 16 * 1024);
        response.header("Transfer-Encoding", "chunked").withoutContentLength();
    }
    if (sentBeforeStall >= 0)
        response.stallAfter(sentBeforeStall);
    server->enqueue(response);

    UpdateQuerier querier;
    querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    querier.setServerHost(server->url("/update?v=1"));
    QSignalSpy finished(&querier, &UpdateQuerier::finished);
    QSignalSpy failed(&querier, &UpdateQuerier::error);
    querier.query();
    QTRY_COMPARE(finished.count() + failed.count(), 1);
    QCOMPARE(server->requestCount(), 1);

    if (delivered) {
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toJsonObject().value("pad").toString().size(), size - 10);
        QVERIFY(log->messages("ERROR").isEmpty());
        return;
    }
    QCOMPARE(codeOf(failed), UpdateQuerier::AppError);
    QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Response is too large."));
    // Only this line: the abort that cut the answer off is not reported as a
    // failed request.
    QCOMPARE(log->messages("ERROR"),
             QStringList{QStringLiteral("Response is too large. (limit: 1048576 bytes)")});
}

void TestUpdateQuerier::unsafeRedirectsAreRefused_data() {
    QTest::addColumn<QString>("location");
    QTest::addColumn<bool>("refused");

    // The network library would serve this one itself, as a valid answer.
    QTest::newRow("to a data: URL") << "data:application/json,%7B%22updater%22%3A%7B%7D%7D" << true;
    QTest::newRow("to https is followed") << "https://127.0.0.1:<dead>/update?v=1" << false;
}

void TestUpdateQuerier::unsafeRedirectsAreRefused() {
    QFETCH(QString, location);
    QFETCH(bool, refused);

    const quint16 dead = pickFreePort();
    QVERIFY(dead != 0);
    location.replace("<dead>", QString::number(dead));
    server->enqueue(HttpResponse::redirect(location.toUtf8()));
    UpdateQuerier querier;
    querier.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    querier.setServerHost(server->url("/update?v=1"));
    QSignalSpy finished(&querier, &UpdateQuerier::finished);
    QSignalSpy failed(&querier, &UpdateQuerier::error);
    querier.query();
    QTRY_COMPARE(finished.count() + failed.count(), 1);
    QCOMPARE(finished.count(), 0);
    QCOMPARE(server->requestCount(), 1);

    const QString target = QUrl(location).toString();
    QCOMPARE(log->messages("INFO"), QStringList{"Redirect to " + target});
    const QString refusal = "Unsafe redirection refused. (" + target + ")";
    if (!refused) {
        // Followed: what fails is the connection to the dead port (or, without
        // TLS support, the scheme), not the redirect.
        QCOMPARE(codeOf(failed), QSslSocket::supportsSsl() ? UpdateQuerier::NetworkError
                                                           : UpdateQuerier::UnknownError);
        QVERIFY(!log->messages("ERROR").contains(refusal));
        QCOMPARE(querier.getServerHost(), target);
        return;
    }
    QCOMPARE(codeOf(failed), UpdateQuerier::AppError);
    QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Unsafe redirection refused."));
    QCOMPARE(log->messages("ERROR"), QStringList{refusal});
    // The refused target is not kept for the next query.
    QCOMPARE(querier.getServerHost(), server->url("/update?v=1"));
}

void TestUpdateQuerier::isAllowedRedirect_data() {
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<bool>("allowed");

    QTest::newRow("http to http") << "http://a/x"
                                  << "http://b/y" << true;
    QTest::newRow("http to https") << "http://a/x"
                                   << "https://b/y" << true;
    QTest::newRow("https to http") << "https://a/x"
                                   << "http://a/x" << false;
    QTest::newRow("https to http, scheme in capitals") << "HTTPS://a/x"
                                                       << "HTTP://a/x" << false;
    QTest::newRow("http to file") << "http://a/x"
                                  << "file:///etc/passwd" << false;
    QTest::newRow("https to data") << "https://a/x"
                                   << "data:,{}" << false;
    QTest::newRow("http to ftp") << "http://a/x"
                                 << "ftp://a/x" << false;
    QTest::newRow("http to no scheme") << "http://a/x"
                                       << "/y" << false;
}

void TestUpdateQuerier::isAllowedRedirect() {
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(bool, allowed);

    QCOMPARE(UpdateQuerier::isAllowedRedirect(QUrl(from), QUrl(to)), allowed);
}

QTEST_GUILESS_MAIN(TestUpdateQuerier)
#include "test_update_querier.moc"
