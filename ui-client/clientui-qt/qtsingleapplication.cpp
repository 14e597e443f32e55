#include "qtsingleapplication.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLoggingCategory>
#include <QPointer>
#include <QThread>
#include <QtEndian>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// Wire format, one message per frame: the length of the UTF-8 text as a 32-bit
// big-endian number, then the text. The receiver answers every whole frame
// with one ACK byte, which is what the sender waits for. The length prefix is
// what lets any text through, newlines and all.

namespace {

// Debug output (QT_LOGGING_RULES="qtsingleapplication.debug=true") tells which
// role an instance took and why a sender is waiting.
Q_LOGGING_CATEGORY(lcSingleApp, "qtsingleapplication", QtWarningMsg)

const int HEADER_SIZE = 4;
const char ACK = '\x06';
// Far beyond any real message; stops a confused peer from making the running
// instance buffer gigabytes.
const quint32 MAX_MESSAGE_SIZE = 16 * 1024 * 1024;
// How often a sender retries while the running instance is not listening yet
// (it is still starting up) or any more (it is shutting down).
const int CONNECT_RETRY_MS = 20;

// A directory owned by this user that no one else may enter.
bool isPrivateDirectory(const QByteArray &path, bool follow_links) {
    struct stat st;
    const int rc = follow_links ? ::stat(path.constData(), &st) : ::lstat(path.constData(), &st);
    return rc == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() && (st.st_mode & 077) == 0;
}

// Where the lock file and the socket live. Other users must not be able to
// plant a socket there that our messages would go to, nor take our lock, so
// only a directory private to the user will do.
QString privateRuntimeDirectory() {
    const QByteArray xdg = qgetenv("XDG_RUNTIME_DIR");
    if (!xdg.isEmpty() && ::access(xdg.constData(), W_OK | X_OK) == 0 &&
        isPrivateDirectory(xdg, true))
        return QFile::decodeName(xdg);

    const QString dir = QDir::tempPath() + QStringLiteral("/qtsingleapp-") +
                        QString::number(static_cast<qulonglong>(::getuid()));
    const QByteArray encoded = QFile::encodeName(dir);
    if (::mkdir(encoded.constData(), 0700) != 0 && errno != EEXIST) {
        qCWarning(lcSingleApp, "QtSingleApplication: cannot create %s: %s", encoded.constData(),
                  std::strerror(errno));
        return QString();
    }
    // The name may already be taken. Our own directory with a loose mode
    // (someone's umask or chmod) is tightened; a symbolic link or another
    // user's directory is never used.
    struct stat st;
    if (::lstat(encoded.constData(), &st) != 0 || !S_ISDIR(st.st_mode) ||
        st.st_uid != ::geteuid()) {
        qCWarning(lcSingleApp, "QtSingleApplication: %s is not a directory of this user",
                  encoded.constData());
        return QString();
    }
    if ((st.st_mode & 077) != 0 && ::chmod(encoded.constData(), 0700) != 0) {
        qCWarning(lcSingleApp, "QtSingleApplication: cannot make %s private: %s",
                  encoded.constData(), std::strerror(errno));
        return QString();
    }
    return isPrivateDirectory(encoded, false) ? dir : QString();
}

// The user id, the executable and the application name make the identity. The
// readable name at the front only helps someone looking into the directory.
QString instanceBaseName() {
    const QString name = QCoreApplication::applicationName();
    QString readable;
    for (const QChar c : name) {
        if (readable.size() == 24)
            break;
        if ((c >= QLatin1Char('a') && c <= QLatin1Char('z')) ||
            (c >= QLatin1Char('A') && c <= QLatin1Char('Z')) ||
            (c >= QLatin1Char('0') && c <= QLatin1Char('9')) || c == QLatin1Char('-') ||
            c == QLatin1Char('_') || c == QLatin1Char('.'))
            readable += c;
    }
    if (readable.isEmpty())
        readable = QStringLiteral("app");

    QByteArray identity = QByteArray::number(static_cast<qulonglong>(::getuid()));
    identity += '\0';
    identity += QFile::encodeName(QCoreApplication::applicationFilePath());
    identity += '\0';
    identity += name.toUtf8();
    const QByteArray digest = QCryptographicHash::hash(identity, QCryptographicHash::Sha256);
    return readable + QLatin1Char('-') + QString::fromLatin1(digest.toHex().left(16));
}

int remainingMs(const QDeadlineTimer &deadline) {
    if (deadline.isForever())
        return -1;
    return static_cast<int>(qBound<qint64>(0, deadline.remainingTime(), INT_MAX));
}

} // namespace

QtSingleApplication::QtSingleApplication(int &argc, char **argv, bool GUIenabled)
    : QApplication(argc, argv) {
    Q_UNUSED(GUIenabled)
    setUp();
}

QtSingleApplication::~QtSingleApplication() {
    // Closing the server unlinks the socket file by name. That has to happen
    // while the lock is still ours: once it is released, a new instance may
    // already have put its own socket under that name.
    delete server;
    server = nullptr;
    if (lock_fd >= 0)
        ::close(lock_fd);
}

void QtSingleApplication::setUp() {
    const QString dir = privateRuntimeDirectory();
    if (dir.isEmpty()) {
        qCWarning(lcSingleApp, "QtSingleApplication: no private directory for the instance lock; "
                               "running without single-instance protection");
        return;
    }
    const QString base = dir + QLatin1Char('/') + instanceBaseName();
    lock_path = base + QStringLiteral(".lock");
    socket_path = base + QStringLiteral(".socket");

    // The lock is an flock() on this file, so the kernel releases it when the
    // process ends, SIGKILL included; the file itself may stay. Close-on-exec
    // matters: a program we start (the downloaded updater, say) must not
    // inherit the descriptor and keep the lock after we are gone.
    const QByteArray encoded = QFile::encodeName(lock_path);
    lock_fd = ::open(encoded.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock_fd < 0) {
        qCWarning(lcSingleApp,
                  "QtSingleApplication: cannot open %s: %s; running without single-instance "
                  "protection",
                  encoded.constData(), std::strerror(errno));
        return;
    }
    switch (tryTakeLock()) {
    case LockResult::Taken:
        qCDebug(lcSingleApp, "QtSingleApplication: first instance, serving %s",
                qPrintable(socket_path));
        role = Role::Primary;
        startServing();
        break;
    case LockResult::Busy:
        qCDebug(lcSingleApp, "QtSingleApplication: another instance holds %s",
                qPrintable(lock_path));
        role = Role::Secondary;
        break;
    case LockResult::Failed:
        qCWarning(lcSingleApp,
                  "QtSingleApplication: cannot lock %s: %s; running without single-instance "
                  "protection",
                  encoded.constData(), std::strerror(errno));
        break;
    }
}

QtSingleApplication::LockResult QtSingleApplication::tryTakeLock() {
    int rc;
    do {
        rc = ::flock(lock_fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0)
        return errno == EWOULDBLOCK ? LockResult::Busy : LockResult::Failed;

    // Only for whoever looks into the directory: which process holds the lock.
    const QByteArray pid = QByteArray::number(static_cast<qlonglong>(::getpid())) + '\n';
    if (::ftruncate(lock_fd, 0) != 0 || ::pwrite(lock_fd, pid.constData(), pid.size(), 0) < 0)
        qCWarning(lcSingleApp, "QtSingleApplication: cannot write %s: %s", qPrintable(lock_path),
                  std::strerror(errno));
    return LockResult::Taken;
}

void QtSingleApplication::startServing() {
    // With the lock ours, whatever sits under the socket name was left by an
    // instance that died without cleaning up.
    QLocalServer::removeServer(socket_path);
    server = new QLocalServer(this);
    connect(server, &QLocalServer::newConnection, this, &QtSingleApplication::acceptConnections);
    if (!server->listen(socket_path))
        qCWarning(lcSingleApp, "QtSingleApplication: cannot listen on %s: %s",
                  qPrintable(socket_path), qPrintable(server->errorString()));
}

void QtSingleApplication::acceptConnections() {
    while (QLocalSocket *socket = server->nextPendingConnection()) {
        // Every sender gets its own socket and buffer, so one that stalls or
        // sends garbage holds up no one else.
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readMessages(socket); });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        readMessages(socket);
    }
}

void QtSingleApplication::readMessages(QLocalSocket *socket) {
    QPointer<QLocalSocket> guard(socket);
    while (guard && socket->bytesAvailable() >= HEADER_SIZE) {
        const QByteArray header = socket->peek(HEADER_SIZE);
        const quint32 size = qFromBigEndian<quint32>(header.constData());
        if (size > MAX_MESSAGE_SIZE) {
            qCWarning(lcSingleApp, "QtSingleApplication: dropping a sender announcing %u bytes",
                      size);
            socket->abort();
            return;
        }
        if (socket->bytesAvailable() < HEADER_SIZE + qint64(size))
            return;
        socket->read(HEADER_SIZE);
        const QString message = QString::fromUtf8(socket->read(size));
        socket->write(&ACK, 1);
        socket->flush();
        // The receiver may quit the application or run a nested event loop;
        // the guard notices when the socket went away meanwhile.
        emit messageReceived(message);
    }
}

bool QtSingleApplication::isRunning() {
    if (role == Role::Secondary && tryTakeLock() == LockResult::Taken) {
        // The other instance has ended since we last looked: this one is now
        // the running instance.
        qCDebug(lcSingleApp, "QtSingleApplication: the other instance has ended, taking over");
        role = Role::Primary;
        startServing();
    }
    return role == Role::Secondary;
}

bool QtSingleApplication::sendMessage(const QString &message, int timeout) {
    if (!isRunning())
        return false;
    const QByteArray payload = message.toUtf8();
    if (quint32(payload.size()) > MAX_MESSAGE_SIZE)
        return false;

    const QDeadlineTimer deadline(timeout < 0 ? QDeadlineTimer(QDeadlineTimer::Forever)
                                              : QDeadlineTimer(timeout));
    QLocalSocket socket;
    for (bool first_attempt = true;; first_attempt = false) {
        socket.connectToServer(socket_path);
        if (socket.waitForConnected(remainingMs(deadline)))
            break;
        if (first_attempt)
            qCDebug(lcSingleApp,
                    "QtSingleApplication: %s: %s; retrying while the other "
                    "instance holds the lock",
                    qPrintable(socket_path), qPrintable(socket.errorString()));
        socket.abort();
        // Refused or not found: the running instance is not listening yet, or
        // not any more. Keep trying while it holds the lock.
        if (deadline.hasExpired() || !isRunning())
            return false;
        const int wait = remainingMs(deadline);
        QThread::msleep(wait < 0 ? CONNECT_RETRY_MS : qMin(wait, CONNECT_RETRY_MS));
    }

    QByteArray frame(HEADER_SIZE, '\0');
    qToBigEndian<quint32>(quint32(payload.size()), frame.data());
    frame += payload;
    if (socket.write(frame) != frame.size())
        return false;
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(remainingMs(deadline)))
            return false;
    }
    while (socket.bytesAvailable() < 1) {
        if (!socket.waitForReadyRead(remainingMs(deadline)))
            return false;
    }
    char answer = 0;
    return socket.getChar(&answer) && answer == ACK;
}
