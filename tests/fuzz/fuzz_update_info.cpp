// The checks on an update answer, on arbitrary JSON text: whatever they
// accept must be safe to act on.

#include "update-info.h"

#include <QJsonDocument>
#include <QUrl>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QJsonObject answer =
        QJsonDocument::fromJson(QByteArray(reinterpret_cast<const char *>(data), int(size)))
            .object();
    if (!UpdateInfo::findProblem(answer).isEmpty())
        return 0;

    for (const char *key : {"updater", "update_pack"}) {
        if (!answer.contains(QLatin1String(key)))
            continue;
        const QJsonObject file = answer.value(QLatin1String(key)).toObject();
        const QString name = file.value(QLatin1String("name")).toString();
        if (name.isEmpty() || name.contains(QLatin1Char('/')) || name == QLatin1String("..") ||
            name.toUtf8().size() > UpdateInfo::MAX_NAME_BYTES)
            std::abort();
        const QString scheme =
            QUrl(file.value(QLatin1String("url")).toString(), QUrl::TolerantMode).scheme();
        if (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
            std::abort();
    }
    return 0;
}
