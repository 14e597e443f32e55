// Tells whether the X display in $DISPLAY offers a system tray, as the updater
// itself would see it: prints "true" or "false" and exits with 0 or 1. The
// system tests poll it after starting a tray, since the tray only claims its
// selection a moment after its process has started.

#include <QApplication>
#include <QSystemTrayIcon>

#include <cstdio>

int main(int argc, char *argv[]) {
    QApplication app(argc, argv);
    const bool available = QSystemTrayIcon::isSystemTrayAvailable();
    std::puts(available ? "true" : "false");
    return available ? 0 : 1;
}
