#include "log-capture.h"

#include "log/log.h"

#include <QFile>
#include <QRegularExpression>

LogCapture::LogCapture(const QByteArray &levelTemplate) {
    if (!dir.isValid())
        return;
    const QString templatePath = dir.filePath(QStringLiteral("levels.debug"));
    QFile levels(templatePath);
    if (!levels.open(QIODevice::WriteOnly) || levels.write(levelTemplate) < 0)
        return;
    levels.close();
    valid = Logger::Initialize(Logger::FILE_LOGGER, QFile::encodeName(path()).toStdString(),
                               QFile::encodeName(templatePath).toStdString(), 50,
                               Logger::ThreadSafe) == 0;
}

LogCapture::~LogCapture() {
    Logger::Destroy();
}

QString LogCapture::path() const {
    return dir.filePath(QStringLiteral("test.log"));
}

QString LogCapture::text() const {
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

QStringList LogCapture::messages(const QString &level) const {
    // "<time stamp> [LEVEL] file.cpp(42): message"
    const QRegularExpression line(QStringLiteral("\\[") + QRegularExpression::escape(level) +
                                  QStringLiteral("\\] [^ ()]+\\(\\d+\\): (.*)$"));
    QStringList found;
    const QStringList lines = text().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &l : lines) {
        const auto match = line.match(l);
        if (match.hasMatch())
            found << match.captured(1);
    }
    return found;
}

void LogCapture::clear() {
    // The logger appends, so its next line lands at the start of the emptied file.
    QFile file(path());
    if (file.open(QIODevice::ReadWrite))
        file.resize(0);
}
