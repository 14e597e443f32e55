// An update answer the checks accept names only plain files and web URLs.
#include "update-info.h"

#include <QJsonDocument>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    const QByteArray json(reinterpret_cast<const char *>(data), int(size));
    const QJsonObject answer = QJsonDocument::fromJson(json).object();
    for (const QString key : {"updater", "update_pack"}) {
        if (answer.contains(key) && UpdateInfo::findProblem(answer).isEmpty() &&
            !(UpdateInfo::isPlainFileName(answer[key]["name"].toString()) &&
              UpdateInfo::isWebUrl(answer[key]["url"].toString())))
            std::abort();
    }
    return 0;
}
