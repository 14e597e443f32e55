#ifndef QTSINGLEAPPLICATION_H
#define QTSINGLEAPPLICATION_H

#include <QApplication>
#include <QString>

class QLocalServer;
class QLocalSocket;

// An application object that knows whether another instance of the same
// application is already running for the same user, and lets a later instance
// pass text messages to that first one.
//
// The instance identity is the user id together with the absolute path of the
// executable and the application name, so two installations of a program, or
// two programs in one directory, never take each other for a running instance.
// The first instance holds an exclusive lock on a file and serves a local
// socket, both kept in a directory only the user can enter ($XDG_RUNTIME_DIR,
// else "qtsingleapp-<uid>" in the temporary directory). The kernel drops the
// lock when a process dies, however it dies, so a crashed instance never blocks
// the next start.
class QtSingleApplication : public QApplication {
    Q_OBJECT

public:
    // The instance role is settled here. An application name set with
    // QCoreApplication::setApplicationName before construction is part of the
    // identity. Qt 5 gives every QApplication a GUI, so GUIenabled only exists
    // for the call sites that pass it.
    QtSingleApplication(int &argc, char **argv, bool GUIenabled = true);
    ~QtSingleApplication() override;

    // True when another instance of this application is running. When the
    // other instance has gone since the last call, this one takes its place
    // and starts serving messages.
    bool isRunning();

    // Sends the text to the running instance and waits, at most timeout
    // milliseconds (a negative value waits without limit), until that instance
    // has received it whole. False when no other instance takes it in time.
    bool sendMessage(const QString &message, int timeout = 5000);

signals:
    // Emitted in the running instance for every message it receives.
    void messageReceived(const QString &message);

private:
    enum class Role {
        // Another instance holds the lock.
        Secondary,
        // This instance holds the lock and serves messages.
        Primary,
        // No private place for the lock could be set up; the instance runs on
        // without single-instance protection.
        Unguarded,
    };

    enum class LockResult { Taken, Busy, Failed };

    void setUp();
    LockResult tryTakeLock();
    void startServing();
    void acceptConnections();
    void readMessages(QLocalSocket *socket);

    Role role = Role::Unguarded;
    int lock_fd = -1;
    QString lock_path;
    QString socket_path;
    QLocalServer *server = nullptr;
};

#endif // QTSINGLEAPPLICATION_H
