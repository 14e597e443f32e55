#include "loopback-daemon.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

namespace {

const int START_ATTEMPTS = 5;
const int START_TIMEOUT_MS = 10000;

QByteArray quoted(const QString &path) {
    return '"' + QFile::encodeName(path) + '"';
}

} // namespace

quint16 pickFreePort() {
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

LoopbackDaemon::LoopbackDaemon(const QString &program, const QString &logName)
    : program_name(program), log_name(logName) {}

LoopbackDaemon::~LoopbackDaemon() {
    stop();
}

QString LoopbackDaemon::binary() const {
    // Server programs live in sbin, which is not always on a user's PATH.
    QString found = QStandardPaths::findExecutable(program_name);
    if (found.isEmpty()) {
        found = QStandardPaths::findExecutable(program_name, {QStringLiteral("/usr/sbin"),
                                                              QStringLiteral("/usr/local/sbin"),
                                                              QStringLiteral("/sbin")});
    }
    return found;
}

QString LoopbackDaemon::logPath() const {
    return dir.filePath(log_name);
}

QStringList LoopbackDaemon::logLines() const {
    QFile file(logPath());
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

bool LoopbackDaemon::isRunning() const {
    return process && process->state() == QProcess::Running;
}

bool LoopbackDaemon::start() {
    stop();
    if (!dir.isValid()) {
        error_text = QStringLiteral("cannot create a temporary folder: ") + dir.errorString();
        return false;
    }
    if (binary().isEmpty()) {
        error_text = program_name + QStringLiteral(" is not installed");
        return false;
    }
    for (int attempt = 0; attempt < START_ATTEMPTS; ++attempt) {
        const quint16 port = pickFreePort();
        if (port != 0 && startOn(port))
            return true;
    }
    return false;
}

bool LoopbackDaemon::startOn(quint16 port) {
    const QString configPath = dir.filePath(program_name + QStringLiteral(".conf"));
    {
        QFile config(configPath);
        if (!config.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            config.write(configuration(port)) < 0) {
            error_text = QStringLiteral("cannot write ") + configPath;
            return false;
        }
    }
    if (!readyFile().isEmpty())
        QFile::remove(readyFile());

    process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardOutputFile(dir.filePath(program_name + QStringLiteral(".out")));
    process->setWorkingDirectory(dir.path());
    process->start(binary(), arguments(configPath));
    if (!process->waitForStarted(START_TIMEOUT_MS)) {
        error_text = program_name + QStringLiteral(" did not start: ") + process->errorString();
        process.reset();
        return false;
    }

    // Ready once the program is still alive, has written its ready file (when
    // it has one) and accepts a connection on its port. A program that lost
    // the race for the port exits, and the caller tries another one.
    QDeadlineTimer deadline(START_TIMEOUT_MS);
    while (!deadline.hasExpired()) {
        if (process->waitForFinished(50))
            break;
        if (!readyFile().isEmpty() && !QFileInfo::exists(readyFile()))
            continue;
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        if (probe.waitForConnected(200) && process->state() == QProcess::Running) {
            probe.abort();
            listen_port = port;
            error_text.clear();
            return true;
        }
    }

    QFile out(dir.filePath(program_name + QStringLiteral(".out")));
    out.open(QIODevice::ReadOnly);
    error_text = program_name + QStringLiteral(" did not come up on port ") +
                 QString::number(port) + QStringLiteral(": ") +
                 QString::fromLocal8Bit(out.readAll()).trimmed();
    stop();
    return false;
}

void LoopbackDaemon::stop() {
    if (!process)
        return;
    if (process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(5000)) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
    process.reset();
    listen_port = 0;
}

NginxServer::NginxServer(const QString &documentRoot)
    : LoopbackDaemon(QStringLiteral("nginx"), QStringLiteral("access.log")),
      root(QDir(documentRoot).absolutePath()) {}

QString NginxServer::url(const QString &path) const {
    return QStringLiteral("http://127.0.0.1:%1%2").arg(port()).arg(path);
}

QString NginxServer::errorLogPath() const {
    return QDir(workDir()).filePath("error.log");
}

QString NginxServer::readyFile() const {
    return QDir(workDir()).filePath("nginx.pid");
}

QByteArray NginxServer::configuration(quint16 port) const {
    const QDir work(workDir());
    // A single process without a master: it runs as whoever runs the test, so
    // it can read the test's private folders, and stopping it leaves no
    // worker behind.
    QByteArray c;
    c += "daemon off;\n";
    c += "master_process off;\n";
    c += "pid " + quoted(readyFile()) + ";\n";
    c += "error_log " + quoted(errorLogPath()) + " info;\n";
    c += "events { worker_connections 256; }\n";
    c += "http {\n";
    c += "    default_type application/octet-stream;\n";
    c += "    log_format quillon '$remote_addr \"$request\" $status $bytes_sent "
         "range=\"$http_range\" via=\"$http_via\"';\n";
    c += "    access_log " + quoted(logPath()) + " quillon;\n";
    for (const char *kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        c += "    " + QByteArray(kind) + "_temp_path " +
             quoted(work.filePath(QString::fromLatin1(kind) + QStringLiteral("_temp"))) + ";\n";
    }
    c += "    sendfile on;\n";
    c += "    server {\n";
    c += "        listen 127.0.0.1:" + QByteArray::number(port) + ";\n";
    c += "        root " + quoted(root) + ";\n";
    c += extra;
    c += "\n    }\n";
    c += "}\n";
    return c;
}

QStringList NginxServer::arguments(const QString &configPath) const {
    // -e keeps nginx from touching the system's error log before it has read
    // the configuration.
    return {QStringLiteral("-p"), workDir() + QLatin1Char('/'), QStringLiteral("-e"),
            errorLogPath(),       QStringLiteral("-c"),         configPath};
}

TinyProxy::TinyProxy()
    : LoopbackDaemon(QStringLiteral("tinyproxy"), QStringLiteral("tinyproxy.log")) {}

QByteArray TinyProxy::configuration(quint16 port) const {
    const QDir work(workDir());
    // No ConnectPort line: every port may be reached.
    QByteArray c;
    c += "Port " + QByteArray::number(port) + "\n";
    c += "Listen 127.0.0.1\n";
    c += "Timeout 30\n";
    c += "Allow 127.0.0.1\n";
    c += "MaxClients 32\n";
    c += "LogLevel Info\n";
    c += "LogFile " + quoted(logPath()) + "\n";
    c += "PidFile " + quoted(work.filePath("tinyproxy.pid")) + "\n";
    return c;
}

QStringList TinyProxy::arguments(const QString &configPath) const {
    return {QStringLiteral("-d"), QStringLiteral("-c"), configPath};
}
