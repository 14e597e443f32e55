#ifndef UIPATHMANAGER_H
#define UIPATHMANAGER_H

#include <QHash>
#include <QMutex>
#include <QString>

// Process-wide registry of named directories ("resource_path", "log_path", ...).
// Start-up code registers them once; everything else looks them up by key
// instead of computing directories on its own.
class UIPathManager {
public:
    // The one registry of the process, created on first use. Never null, and
    // still valid while static objects are being destroyed at exit.
    static UIPathManager *getInstance();

    // Stores the path under the key, replacing any earlier value.
    void setPath(const QString &key, const QString &path);
    // The path stored under the key; an empty string when it was never set.
    QString getPath(const QString &key) const;

private:
    UIPathManager() = default;
    Q_DISABLE_COPY(UIPathManager)

    mutable QMutex mutex;
    QHash<QString, QString> paths;
};

#endif // UIPATHMANAGER_H
