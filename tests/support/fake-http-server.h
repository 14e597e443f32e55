#ifndef QUILLON_TESTS_SUPPORT_FAKE_HTTP_SERVER_H
#define QUILLON_TESTS_SUPPORT_FAKE_HTTP_SERVER_H

#include <QHash>
#include <QQueue>
#include <QTcpServer>

#include <functional>

struct HttpRequest {
    // As on the request line: "/path?query", or absolute through a proxy.
    QByteArray target;
    QHash<QByteArray, QByteArray> headers; // names in lower case
};

// One scripted answer, e.g. HttpResponse(200, data).honourRange().stall(4096);
// stall(0) holds back the whole body, for a time-out.
struct HttpResponse {
    explicit HttpResponse(int code = 200, const QByteArray &content = QByteArray())
        : status(code), body(content) {}

    int status;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool ranged = false;    // "Range: bytes=N-" is answered with 206 from byte N
    bool length = true;     // a Content-Length header is added
    qint64 stallAfter = -1; // only the head and this many body bytes go out

    HttpResponse &header(const QByteArray &name, const QByteArray &value) {
        headers.append(qMakePair(name, value));
        return *this;
    }
    HttpResponse &honourRange() {
        ranged = true;
        return *this;
    }
    HttpResponse &stall(qint64 bodyBytes) {
        stallAfter = bodyBytes;
        return *this;
    }
};
Q_DECLARE_METATYPE(HttpResponse)

// HTTP/1.1 on 127.0.0.1 for faults real servers do not make on cue. Each
// request takes the next queued answer, else the handler's; with neither, a
// 404 sentinel, so that a stray retry fails the test instead of hanging it.
// The server never closes a connection by itself: a client that sees the
// close before it has parsed the answer may quietly send the request again.
class FakeHttpServer : public QTcpServer {
public:
    using Handler = std::function<HttpResponse(const HttpRequest &)>;

    FakeHttpServer();
    QString url(const QString &pathAndQuery) const;
    void enqueue(const HttpResponse &response) { queue.enqueue(response); }
    // Closes every connection: a stalled transfer is cut off where it stands.
    void cutConnections();

    Handler handler;
    QList<HttpRequest> requests;

private:
    void serve(QTcpSocket *socket);
    void respond(QTcpSocket *socket, const QByteArray &range, const HttpResponse &response);

    QQueue<HttpResponse> queue;
};

#endif
