#ifndef DPIINFO_H
#define DPIINFO_H

#include <QString>
#include <QtGlobal>

// The scale factor of the primary screen, and style sheets adapted to it, so
// that sizes given in pixels grow together with the text on dense screens.
class DPIinfo {
public:
    static DPIinfo *getInstance();

    // The primary screen's scale factor for sizes given in device-independent
    // pixels: 1.0 at the standard density of 96 logical DPI. 1.0 as long as no
    // QGuiApplication or no screen exists.
    qreal getDPI() const;

    // The style sheet with every pixel length multiplied by getDPI().
    QString getScaledStyleSheet(const QString &sheet) const;

    // The factor for a screen reporting the given logical DPI (see dpiinfo.cpp
    // for how it is rounded).
    static qreal scaleFactorForLogicalDpi(qreal logical_dpi);

    // The style sheet with every pixel length ("12px", "1.5px", "-2px")
    // multiplied by the factor. Other numbers, and anything inside quoted
    // strings, url(...) and comments, are left alone. A factor of 1.0 (or a
    // meaningless one) returns the sheet unchanged.
    static QString scaleStyleSheet(const QString &sheet, qreal factor);

private:
    DPIinfo() = default;
    Q_DISABLE_COPY(DPIinfo)
};

#endif // DPIINFO_H
