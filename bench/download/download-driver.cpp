// Downloads one file with UpdateDownloader, exactly as the updater does, and
// reports the outcome through the exit status: 0 when the file is complete,
// verified and at its save path, otherwise the downloader's error code.
// Prints its peak resident memory on standard error for run.sh.
//
//   download_driver <url> <md5 checksum> <save path>

#include "update-downloader.h"

#include <QCoreApplication>
#include <QNetworkProxy>
#include <QTimer>

#include <cstdio>
#include <sys/resource.h>

int main(int argc, char *argv[]) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 4) {
        std::fprintf(stderr, "usage: %s <url> <md5 checksum> <save path>\n", argv[0]);
        return 64;
    }

    UpdateDownloader downloader;
    downloader.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    downloader.setDownloadUrl(args.at(1));
    downloader.setExpectChecksum(args.at(2));
    downloader.setSavePath(args.at(3));

    int status = 70;
    QObject::connect(&downloader, &UpdateDownloader::finished, &app, [&]() {
        status = 0;
        app.quit();
    });
    QObject::connect(&downloader, &UpdateDownloader::error, &app,
                     [&](UpdateDownloader::UpdateDownloaderError code, const QString &reason) {
                         std::fprintf(stderr, "download failed: %d %s\n", int(code),
                                      qUtf8Printable(reason));
                         status = int(code);
                         app.quit();
                     });
    QTimer::singleShot(0, &downloader, &UpdateDownloader::download);
    app.exec();

    struct rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    std::fprintf(stderr, "peak_rss_kib=%ld\n", usage.ru_maxrss);
    return status;
}
