#include "update-info.h"

#include <QUrl>

#include <algorithm>

namespace UpdateInfo {

namespace {

bool isControl(QChar c) {
    const ushort u = c.unicode();
    return u < 0x20 || (u >= 0x7f && u <= 0x9f);
}

QString checkFile(const QJsonObject &answer, const QString &key, const QString &what) {
    const QJsonValue value = answer.value(key);
    if (!value.isObject())
        return what + QStringLiteral(" is not an object");
    const QJsonObject file = value.toObject();
    QString problem;
    if (!isPlainFileName(file.value(QLatin1String("name")).toString(), &problem))
        return what + QStringLiteral(" name ") + problem;
    const QString url = file.value(QLatin1String("url")).toString();
    if (!isWebUrl(url))
        return what + QStringLiteral(" url is not an http or https URL: '") + url +
               QLatin1Char('\'');
    return QString();
}

} // namespace

bool isPlainFileName(const QString &name, QString *problem) {
    QString found;
    if (name.isEmpty())
        found = QStringLiteral("is empty");
    else if (name == QLatin1String(".") || name == QLatin1String(".."))
        found = QStringLiteral("is '") + name + QLatin1Char('\'');
    else if (name.contains(QLatin1Char('/')))
        found = QStringLiteral("contains '/'");
    else if (std::any_of(name.begin(), name.end(), isControl))
        found = QStringLiteral("contains a control character");
    else if (name.toUtf8().size() > MAX_NAME_BYTES)
        found = QStringLiteral("is longer than %1 bytes").arg(MAX_NAME_BYTES);
    if (problem)
        *problem = found;
    return found.isEmpty();
}

bool isWebUrl(const QString &url) {
    const QUrl parsed(url, QUrl::TolerantMode);
    const QString scheme = parsed.scheme();
    return parsed.isValid() &&
           (scheme == QLatin1String("http") || scheme == QLatin1String("https")) &&
           !parsed.host().isEmpty();
}

QString findProblem(const QJsonObject &answer) {
    QString problem = checkFile(answer, QStringLiteral("updater"), QStringLiteral("updater"));
    if (!problem.isEmpty() || !answer.contains(QLatin1String("update_pack")))
        return problem;
    problem = checkFile(answer, QStringLiteral("update_pack"), QStringLiteral("update pack"));
    if (!problem.isEmpty())
        return problem;
    // Two downloads under one name would overwrite each other, and the
    // updater would be handed itself as the pack.
    const QString updater =
        answer.value(QLatin1String("updater"))[QLatin1String("name")].toString();
    const QString pack =
        answer.value(QLatin1String("update_pack"))[QLatin1String("name")].toString();
    if (updater == pack)
        return QStringLiteral("updater and update pack have the same name");
    return QString();
}

} // namespace UpdateInfo
