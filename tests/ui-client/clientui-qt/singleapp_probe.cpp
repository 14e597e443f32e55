// One instance of a single-instance program, driven by the QtSingleApplication
// tests through its command line and standard output.
//
//   singleapp_probe [--app-name NAME] [--go-on-stdin] [--spawn-detached]
//                   [--timeout MS] [--send PERCENT-ENCODED-UTF8 [--send-anyway]]
//
// First line: "primary" or "secondary" (isRunning()).
// A secondary with --send sends the decoded message, prints "sent 1" or
// "sent 0" and exits; so does a primary given --send-anyway. Otherwise a
// primary prints "message <percent-encoded UTF-8>" for every
// message it receives and exits 0 after "stop". --spawn-detached makes it start
// a detached "sleep" first and print "child <pid>". As a safety net, a primary
// left alone ends after two minutes with status 3.
#include "qtsingleapplication.h"

#include <QProcess>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

namespace {

void say(const QByteArray &line) {
    std::fputs(line.constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv) {
    QByteArray app_name;
    QByteArray to_send;
    bool sending = false;
    bool send_anyway = false;
    bool go_on_stdin = false;
    bool spawn_detached = false;
    int timeout = 5000;
    for (int i = 1; i < argc; ++i) {
        const bool has_value = i + 1 < argc;
        if (!std::strcmp(argv[i], "--app-name") && has_value) {
            app_name = argv[++i];
        } else if (!std::strcmp(argv[i], "--send") && has_value) {
            sending = true;
            to_send = QByteArray::fromPercentEncoding(argv[++i]);
        } else if (!std::strcmp(argv[i], "--timeout") && has_value) {
            timeout = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--send-anyway")) {
            send_anyway = true;
        } else if (!std::strcmp(argv[i], "--go-on-stdin")) {
            go_on_stdin = true;
        } else if (!std::strcmp(argv[i], "--spawn-detached")) {
            spawn_detached = true;
        } else {
            std::fprintf(stderr, "singleapp_probe: unknown argument %s\n", argv[i]);
            return 2;
        }
    }

    // Lets a test release several probes at the same moment.
    if (go_on_stdin) {
        std::string line;
        std::getline(std::cin, line);
    }

    if (!app_name.isEmpty())
        QCoreApplication::setApplicationName(QString::fromUtf8(app_name));
    int app_argc = 1;
    QtSingleApplication app(app_argc, argv, true);
    const bool running = app.isRunning();
    say(running ? "secondary" : "primary");

    if (sending && (running || send_anyway)) {
        const bool sent = app.sendMessage(QString::fromUtf8(to_send), timeout);
        say(sent ? "sent 1" : "sent 0");
        return 0;
    }
    if (running)
        return 0;

    if (spawn_detached) {
        qint64 pid = 0;
        if (!QProcess::startDetached(QStringLiteral("sleep"), {QStringLiteral("300")}, QString(),
                                     &pid))
            return 4;
        say("child " + QByteArray::number(pid));
    }

    QObject::connect(&app, &QtSingleApplication::messageReceived, [&app](const QString &message) {
        say("message " + message.toUtf8().toPercentEncoding());
        if (message == QLatin1String("stop"))
            app.quit();
    });
    QTimer::singleShot(120000, &app, [&app] { app.exit(3); });
    return app.exec();
}
