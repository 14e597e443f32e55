// The least a tray program can do: start Qt on the display, ask whether there
// is a system tray, and exit. The start-up benchmark measures the updater's
// whole no-update run against this.

#include <QApplication>
#include <QSystemTrayIcon>

int main(int argc, char *argv[]) {
    QApplication app(argc, argv);
    return QSystemTrayIcon::isSystemTrayAvailable() ? 0 : 1;
}
