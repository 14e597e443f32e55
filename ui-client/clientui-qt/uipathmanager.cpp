#include "uipathmanager.h"

#include <QMutexLocker>

UIPathManager *UIPathManager::getInstance() {
    // Deliberately never deleted: a logger or another static object may still
    // ask for a path while the program's statics are being torn down.
    static UIPathManager *const instance = new UIPathManager;
    return instance;
}

void UIPathManager::setPath(const QString &key, const QString &path) {
    QMutexLocker locker(&mutex);
    paths.insert(key, path);
}

QString UIPathManager::getPath(const QString &key) const {
    QMutexLocker locker(&mutex);
    return paths.value(key);
}
