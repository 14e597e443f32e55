#include "fake-http-server.h"

#include <QHostAddress>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>

#include <utility>

namespace {

// Requests with more header bytes than this are answered with 431 and the
// connection is closed, so a confused client cannot make the server buffer
// without bound.
const int MAX_HEADER_BYTES = 64 * 1024;

QByteArray reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 206:
        return "Partial Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 303:
        return "See Other";
    case 307:
        return "Temporary Redirect";
    case 308:
        return "Permanent Redirect";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 407:
        return "Proxy Authentication Required";
    case 416:
        return "Range Not Satisfiable";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

} // namespace

bool HttpRequest::hasHeader(const QByteArray &name) const {
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

QByteArray HttpRequest::header(const QByteArray &name) const {
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    }
    return QByteArray();
}

HttpResponse HttpResponse::withStatus(int status, const QByteArray &body) {
    HttpResponse r;
    r.status = status;
    r.body = body;
    return r;
}

HttpResponse HttpResponse::json(const QByteArray &body) {
    HttpResponse r = withStatus(200, body);
    r.header("Content-Type", "application/json");
    return r;
}

HttpResponse HttpResponse::file(const QByteArray &content) {
    HttpResponse r = withStatus(200, content);
    r.header("Content-Type", "application/octet-stream");
    return r;
}

HttpResponse HttpResponse::redirect(const QByteArray &location, int status) {
    HttpResponse r = withStatus(status);
    r.header("Location", location);
    return r;
}

HttpResponse HttpResponse::silence() {
    HttpResponse r;
    r.ending = Ending::Silent;
    return r;
}

HttpResponse &HttpResponse::header(const QByteArray &name, const QByteArray &value) {
    headers.append(qMakePair(name, value));
    return *this;
}

HttpResponse &HttpResponse::honourRange() {
    rangeHonoured = true;
    header("Accept-Ranges", "bytes");
    return *this;
}

HttpResponse &HttpResponse::withoutContentLength() {
    contentLength = false;
    return *this;
}

HttpResponse &HttpResponse::stallAfter(qint64 bodyBytes) {
    ending = Ending::Stall;
    endAfter = bodyBytes;
    return *this;
}

FakeHttpServer::FakeHttpServer(QObject *parent) : QObject(parent), server(new QTcpServer(this)) {
    connect(server, &QTcpServer::newConnection, this, &FakeHttpServer::acceptConnections);
}

FakeHttpServer::~FakeHttpServer() {
    close();
}

bool FakeHttpServer::listen() {
    return server->listen(QHostAddress::LocalHost, 0);
}

void FakeHttpServer::close() {
    server->close();
    const auto sockets = buffers.keys();
    for (QTcpSocket *socket : sockets) {
        socket->disconnect(this);
        socket->abort();
        delete socket;
    }
    buffers.clear();
    muted.clear();
}

void FakeHttpServer::cutConnections() {
    const auto sockets = buffers.keys();
    for (QTcpSocket *socket : sockets) {
        // Everything written so far goes out first, then the orderly close.
        muted.insert(socket, true);
        socket->disconnectFromHost();
    }
}

quint16 FakeHttpServer::port() const {
    return server->serverPort();
}

QString FakeHttpServer::url(const QString &pathAndQuery) const {
    return QStringLiteral("http://127.0.0.1:%1%2").arg(port()).arg(pathAndQuery);
}

void FakeHttpServer::enqueue(const HttpResponse &response) {
    queued.enqueue(response);
}

void FakeHttpServer::setHandler(Handler h) {
    handler = std::move(h);
}

void FakeHttpServer::acceptConnections() {
    while (QTcpSocket *socket = server->nextPendingConnection()) {
        // Owned by the server object from here on; close() deletes it, and so
        // does the client going away.
        socket->setParent(this);
        buffers.insert(socket, QByteArray());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket]() { readFrom(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket]() {
            buffers.remove(socket);
            muted.remove(socket);
            socket->deleteLater();
        });
    }
}

void FakeHttpServer::readFrom(QTcpSocket *socket) {
    if (!buffers.contains(socket))
        return;
    QByteArray &buffer = buffers[socket];
    buffer += socket->readAll();
    if (muted.value(socket))
        return;
    HttpRequest request;
    while (takeRequest(buffer, request)) {
        received.append(request);
        emit requestReceived(request);
        HttpResponse response;
        if (!queued.isEmpty())
            response = queued.dequeue();
        else if (handler)
            response = handler(request);
        else
            response = HttpResponse::withStatus(404, "no response scripted\n");
        respond(socket, request, response);
        if (muted.value(socket) || socket->state() != QAbstractSocket::ConnectedState)
            return;
    }
    if (buffer.size() > MAX_HEADER_BYTES) {
        socket->write("HTTP/1.1 431 Request Header Fields Too Large\r\nContent-Length: 0\r\n"
                      "Connection: close\r\n\r\n");
        socket->disconnectFromHost();
    }
}

bool FakeHttpServer::takeRequest(QByteArray &buffer, HttpRequest &request) {
    const int end = buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return false;
    const QByteArray head = buffer.left(end);
    const QList<QByteArray> lines = head.split('\n');

    request = HttpRequest();
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    request.method = requestLine.value(0);
    request.target = requestLine.value(1);
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        const int colon = line.indexOf(':');
        if (colon <= 0)
            continue;
        request.headers.append(
            qMakePair(line.left(colon).trimmed(), line.mid(colon + 1).trimmed()));
    }

    // GET requests carry no body, but a declared one is skipped so the next
    // request on the connection is read from the right place.
    qint64 bodyLength = request.header("Content-Length").toLongLong();
    if (buffer.size() < end + 4 + bodyLength)
        return false;
    buffer.remove(0, end + 4 + static_cast<int>(bodyLength));

    const QUrl url =
        request.target.startsWith('/')
            ? QUrl(QStringLiteral("http://127.0.0.1") + QString::fromLatin1(request.target))
            : QUrl(QString::fromLatin1(request.target));
    request.path = url.path(QUrl::FullyDecoded);
    request.query = url.query(QUrl::FullyEncoded);
    return true;
}

void FakeHttpServer::respond(QTcpSocket *socket, const HttpRequest &request,
                             HttpResponse response) {
    if (response.ending == HttpResponse::Ending::Silent) {
        muted.insert(socket, true);
        return;
    }

    int status = response.status;
    QByteArray body = response.body;
    QList<QPair<QByteArray, QByteArray>> headers = response.headers;
    if (response.rangeHonoured && request.hasHeader("Range")) {
        static const QRegularExpression spec(QStringLiteral("^bytes=(\\d+)-(\\d*)$"));
        const auto match = spec.match(QString::fromLatin1(request.header("Range")));
        const qint64 size = body.size();
        if (match.hasMatch()) {
            const qint64 first = match.captured(1).toLongLong();
            qint64 last = match.captured(2).isEmpty() ? size - 1 : match.captured(2).toLongLong();
            if (first >= size) {
                status = 416;
                body.clear();
                headers.append(qMakePair(QByteArray("Content-Range"),
                                         QByteArray("bytes */") + QByteArray::number(size)));
            } else {
                last = qMin(last, size - 1);
                status = 206;
                body =
                    response.body.mid(static_cast<int>(first), static_cast<int>(last - first + 1));
                headers.append(
                    qMakePair(QByteArray("Content-Range"), "bytes " + QByteArray::number(first) +
                                                               "-" + QByteArray::number(last) +
                                                               "/" + QByteArray::number(size)));
            }
        }
    }

    QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + " " +
                      (response.reason.isEmpty() ? reasonPhrase(status) : response.reason) + "\r\n";
    for (const auto &h : headers)
        head += h.first + ": " + h.second + "\r\n";
    if (response.contentLength)
        head += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    else
        head += "Connection: close\r\n";
    head += "\r\n";

    switch (response.ending) {
    case HttpResponse::Ending::Complete:
        socket->write(head + body);
        // A close-delimited body leaves the connection unusable for anything
        // else; it ends at cutConnections().
        if (!response.contentLength)
            muted.insert(socket, true);
        break;
    case HttpResponse::Ending::Stall:
        socket->write(head + body.left(static_cast<int>(response.endAfter)));
        muted.insert(socket, true);
        break;
    case HttpResponse::Ending::Silent:
        break;
    }
}
