#include "fake-http-server.h"

#include <QTcpSocket>

FakeHttpServer::FakeHttpServer() {
    listen(QHostAddress::LocalHost, 0);
    connect(this, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

QString FakeHttpServer::url(const QString &pathAndQuery) const {
    return QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort()).arg(pathAndQuery);
}

void FakeHttpServer::cutConnections() {
    for (QTcpSocket *socket : findChildren<QTcpSocket *>()) {
        socket->setProperty("muted", true);
        socket->disconnectFromHost();
    }
}

void FakeHttpServer::serve(QTcpSocket *socket) {
    QByteArray buffer = socket->property("buffer").toByteArray() + socket->readAll();
    int end;
    // Requests carry no body; after a stall the connection stays mute.
    while (!socket->property("muted").toBool() && (end = buffer.indexOf("\r\n\r\n")) >= 0) {
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        buffer.remove(0, end + 4);
        HttpRequest request;
        request.target = lines.value(0).split(' ').value(1);
        for (const QByteArray &line : lines.mid(1)) {
            const int colon = line.indexOf(':');
            request.headers.insert(line.left(colon).trimmed().toLower(),
                                   line.mid(colon + 1).trimmed());
        }
        requests.append(request);
        respond(socket, request.headers.value("range"),
                !queue.isEmpty() ? queue.dequeue()
                : handler        ? handler(request)
                                 : HttpResponse(404, "no answer scripted"));
    }
    socket->setProperty("buffer", buffer);
}

void FakeHttpServer::respond(QTcpSocket *socket, const QByteArray &range,
                             const HttpResponse &response) {
    int status = response.status;
    QByteArray body = response.body;
    QByteArray head;
    if (response.ranged && range.startsWith("bytes=")) {
        const QByteArray from = range.mid(6, range.indexOf('-') - 6);
        head += "Content-Range: bytes " + from + "-" + QByteArray::number(body.size() - 1) + "/" +
                QByteArray::number(body.size()) + "\r\n";
        status = 206;
        body = body.mid(from.toInt());
    }
    for (const auto &h : response.headers)
        head += h.first + ": " + h.second + "\r\n";
    if (response.length)
        head += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    if (response.stallAfter >= 0) {
        socket->setProperty("muted", true);
        body = body.left(static_cast<int>(response.stallAfter));
    }
    socket->write("HTTP/1.1 " + QByteArray::number(status) + " Status\r\n" + head + "\r\n" + body);
}
