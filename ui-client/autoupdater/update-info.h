#ifndef QUILLON_AUTOUPDATER_UPDATE_INFO_H
#define QUILLON_AUTOUPDATER_UPDATE_INFO_H

#include <QJsonObject>
#include <QString>

// Checks on the update server's answer before anything is acted on. The names
// in the answer become file names in a shared temporary folder and its URLs
// are fetched, so an answer from a broken or hostile server must not be able
// to reach outside that folder or make the updater open anything but a web
// resource.
namespace UpdateInfo {

// Longest file name most Linux file systems accept, in bytes.
const int MAX_NAME_BYTES = 255;

// Empty when the answer's "updater" and optional "update_pack" can be
// downloaded as they stand; otherwise a short description of the first
// problem, for the log.
QString findProblem(const QJsonObject &answer);

// A single plain file name: not empty, not "." or "..", no "/", no control
// characters, at most MAX_NAME_BYTES bytes in UTF-8.
bool isPlainFileName(const QString &name, QString *problem = nullptr);

// An absolute http or https URL with a host.
bool isWebUrl(const QString &url);

} // namespace UpdateInfo

#endif
