#ifndef QUILLON_TESTS_SUPPORT_FAKE_HTTP_SERVER_H
#define QUILLON_TESTS_SUPPORT_FAKE_HTTP_SERVER_H

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPair>
#include <QQueue>
#include <QString>
#include <QUrl>

#include <functional>

class QTcpServer;
class QTcpSocket;

// One request as the server received it.
struct HttpRequest {
    QByteArray method;
    // The request target as it stood on the request line: origin form
    // ("/path?query") from a client, absolute form through a proxy.
    QByteArray target;
    QString path;  // decoded path
    QString query; // the query text as sent (still percent-encoded), without '?'
    QList<QPair<QByteArray, QByteArray>> headers; // in arrival order, names as sent

    bool hasHeader(const QByteArray &name) const;
    // Value of the first header of that name (case-insensitive); empty if absent.
    QByteArray header(const QByteArray &name) const;
};

// How the server answers one request. Build one with the static makers and
// adjust it with the chained modifiers, e.g.
//   HttpResponse::file(data).honourRange().stallAfter(4096)
//
// A connection is never closed by the server of its own accord right after it
// wrote: a client that sees the close before it has parsed the response may
// quietly send the request again on a new connection, which would make tests
// depend on thread timing. Cut connections and close-delimited bodies end when
// the test calls FakeHttpServer::cutConnections(), once it has seen the client
// receive data.
struct HttpResponse {
    enum class Ending {
        Complete, // the whole response is sent (with no Content-Length: then held)
        Stall,    // status line, headers and `endAfter` body bytes, then silence
        Silent,   // nothing at all is sent
    };

    int status = 200;
    QByteArray reason; // empty: the usual phrase for the status
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    // With a "Range: bytes=N-" (or N-M) request header the body is served as
    // 206 with Content-Range, or 416 when N lies past its end; otherwise the
    // whole body goes out with `status`.
    bool rangeHonoured = false;
    // false: the body is delimited by closing the connection, which happens
    // at cutConnections()
    bool contentLength = true;
    Ending ending = Ending::Complete;
    qint64 endAfter = 0;

    static HttpResponse withStatus(int status, const QByteArray &body = QByteArray());
    static HttpResponse json(const QByteArray &body);
    static HttpResponse file(const QByteArray &content);
    // An absolute URL or a relative reference, used as the Location as given.
    static HttpResponse redirect(const QByteArray &location, int status = 302);
    static HttpResponse silence();

    HttpResponse &header(const QByteArray &name, const QByteArray &value);
    HttpResponse &honourRange();
    HttpResponse &withoutContentLength();
    HttpResponse &stallAfter(qint64 bodyBytes);
};

// An HTTP/1.1 server on 127.0.0.1 for tests that need faults on cue: stalls,
// cut connections, exact redirect chains, ignored ranges. It records every
// request; each one is answered by the next queued response, else by the
// handler, else with 404.
class FakeHttpServer : public QObject {
    Q_OBJECT

public:
    using Handler = std::function<HttpResponse(const HttpRequest &)>;

    explicit FakeHttpServer(QObject *parent = nullptr);
    ~FakeHttpServer() override;

    // Listens on 127.0.0.1 on a port the system picks.
    bool listen();
    // Stops listening and drops every connection, stalled ones included.
    void close();
    // Closes every open connection: a stalled transfer is cut off where it
    // stands and a close-delimited body ends. The server keeps listening.
    void cutConnections();

    quint16 port() const;
    // "http://127.0.0.1:<port>" followed by pathAndQuery.
    QString url(const QString &pathAndQuery) const;

    void enqueue(const HttpResponse &response);
    void setHandler(Handler handler);

    QList<HttpRequest> requests() const { return received; }
    int requestCount() const { return received.size(); }
    void clearRequests() { received.clear(); }

signals:
    void requestReceived(const HttpRequest &request);

private:
    void acceptConnections();
    void readFrom(QTcpSocket *socket);
    bool takeRequest(QByteArray &buffer, HttpRequest &request);
    void respond(QTcpSocket *socket, const HttpRequest &request, HttpResponse response);

    QTcpServer *server;
    QHash<QTcpSocket *, QByteArray> buffers;
    // Connections left mute by a stall or a silence: later bytes are ignored.
    QHash<QTcpSocket *, bool> muted;
    QQueue<HttpResponse> queued;
    Handler handler;
    QList<HttpRequest> received;
};

#endif
