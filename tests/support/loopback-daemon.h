#ifndef QUILLON_TESTS_SUPPORT_LOOPBACK_DAEMON_H
#define QUILLON_TESTS_SUPPORT_LOOPBACK_DAEMON_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class QProcess;

// A port on 127.0.0.1 that was free a moment ago: the system picks it for a
// socket bound to port 0, which is then released. Another process may take it
// in between, so whoever listens on it must be ready to try again.
quint16 pickFreePort();

// A real server program run in the foreground for one test: its configuration,
// logs, pid file and scratch folders all live in a private temporary folder
// that goes away with the object, and it listens on 127.0.0.1 on a free port.
// stop() (or destruction) ends the process.
class LoopbackDaemon {
public:
    virtual ~LoopbackDaemon();
    LoopbackDaemon(const LoopbackDaemon &) = delete;
    LoopbackDaemon &operator=(const LoopbackDaemon &) = delete;

    // Empty when the program is not installed.
    QString binary() const;
    // Starts the program on a free port, trying other ports when the one picked
    // was taken meanwhile. False, with errorString() set, when it cannot start.
    bool start();
    void stop();
    bool isRunning() const;

    quint16 port() const { return listen_port; }
    QString errorString() const { return error_text; }
    // The private folder holding the configuration and the logs.
    QString workDir() const { return dir.path(); }
    QString logPath() const;
    QStringList logLines() const;

protected:
    LoopbackDaemon(const QString &program, const QString &logName);
    virtual QByteArray configuration(quint16 port) const = 0;
    virtual QStringList arguments(const QString &configPath) const = 0;
    // A file the program writes once it has bound its socket, if any.
    virtual QString readyFile() const { return QString(); }

private:
    bool startOn(quint16 port);

    QString program_name;
    QString log_name;
    QTemporaryDir dir;
    std::unique_ptr<QProcess> process;
    quint16 listen_port = 0;
    QString error_text;
};

// nginx serving a folder, as people run it. The access log records, per
// request, the request line, the status, the bytes sent, the Range header and
// any Via header a proxy added:
//   127.0.0.1 "GET /f HTTP/1.1" 206 524288 range="bytes=1000-" via="-"
class NginxServer : public LoopbackDaemon {
public:
    explicit NginxServer(const QString &documentRoot);

    // Extra directives placed inside the server block (limit_rate, locations).
    void setServerDirectives(const QByteArray &directives) { extra = directives; }
    QString url(const QString &path) const;
    QString errorLogPath() const;

protected:
    QByteArray configuration(quint16 port) const override;
    QStringList arguments(const QString &configPath) const override;
    QString readyFile() const override;

private:
    QString root;
    QByteArray extra;
};

// tinyproxy as a plain HTTP forward proxy for 127.0.0.1, any port allowed. Its
// log names every request it forwarded ("Request (file descriptor N): GET
// http://... HTTP/1.1").
class TinyProxy : public LoopbackDaemon {
public:
    TinyProxy();

protected:
    QByteArray configuration(quint16 port) const override;
    QStringList arguments(const QString &configPath) const override;
};

#endif
