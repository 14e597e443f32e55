// Reports what DPIinfo says in a process of its own, so that tests can choose
// the screen density through the environment before any application exists.
//
//   dpiinfo_probe none|core|gui
//
// Prints "dpi <factor>" and "sheet <scaled "font-size: 12px">", after creating
// no application object, a QCoreApplication or a QGuiApplication.
#include "dpiinfo.h"

#include <QCoreApplication>
#include <QGuiApplication>

#include <cstdio>
#include <cstring>
#include <memory>

int main(int argc, char **argv) {
    if (argc != 2)
        return 2;
    int app_argc = 1;
    std::unique_ptr<QCoreApplication> app;
    if (!std::strcmp(argv[1], "core"))
        app.reset(new QCoreApplication(app_argc, argv));
    else if (!std::strcmp(argv[1], "gui"))
        app.reset(new QGuiApplication(app_argc, argv));
    else if (std::strcmp(argv[1], "none") != 0)
        return 2;

    DPIinfo *info = DPIinfo::getInstance();
    std::printf("dpi %g\n", double(info->getDPI()));
    std::printf("sheet %s\n",
                qPrintable(info->getScaledStyleSheet(QStringLiteral("font-size: 12px"))));
    return 0;
}
