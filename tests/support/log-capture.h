#ifndef QUILLON_TESTS_SUPPORT_LOG_CAPTURE_H
#define QUILLON_TESTS_SUPPORT_LOG_CAPTURE_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// Points the process-wide logger at a file in a private temporary folder for
// as long as the object lives, with a level template (by default everything
// of the updater's component, debug included). Destruction shuts the logger
// down again.
class LogCapture {
public:
    explicit LogCapture(const QByteArray &levelTemplate = "auto_updater=7\n");
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    bool isValid() const { return valid; }
    QString path() const;
    QString text() const;
    // The message texts of the lines of one level ("ERROR", "INFO", ...), in
    // order, without time stamp, level word, file name and line number.
    QStringList messages(const QString &level) const;
    // Forgets everything written so far.
    void clear();

private:
    QTemporaryDir dir;
    bool valid = false;
};

#endif
