#include "dpiinfo.h"

#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>

#include <cmath>

namespace {

const qreal STANDARD_DPI = 96.0;

// Pixel lengths, and the parts of a style sheet whose text must never be
// touched even when it looks like one: quoted strings, url(...) arguments
// (file names such as "arrow_12px.png") and comments. Only the last
// alternative, the captured length, gets scaled. The look-behind keeps digits
// that end an identifier ("QLabel#title12px") out.
const QRegularExpression &lengthPattern() {
    static const QRegularExpression pattern(
        QStringLiteral(R"("(?:[^"\\]|\\.)*")"
                       R"(|'(?:[^'\\]|\\.)*')"
                       R"(|\burl\([^)]*\))"
                       R"(|/\*.*?\*/)"
                       R"(|(?<![\w.\-])(-?(?:\d+(?:\.\d*)?|\.\d+))(px)(?![\w\-]))"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    return pattern;
}

QString formatLength(double value) {
    // Fixed notation with the trailing zeros removed: 24 rather than 24.0000,
    // and never an exponent, which style sheets do not understand.
    QString text = QString::number(value, 'f', 4);
    while (text.endsWith(QLatin1Char('0')))
        text.chop(1);
    if (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    if (text == QLatin1String("-0"))
        text = QStringLiteral("0");
    return text;
}

} // namespace

DPIinfo *DPIinfo::getInstance() {
    static DPIinfo *const instance = new DPIinfo;
    return instance;
}

// The factor is the screen's logical DPI over 96, the amount by which Qt
// itself enlarges text given in points. Scaling pixel sizes by the same amount
// keeps a dialog's fixed width and its pixel-sized fonts in proportion with the
// rest of its text.
//
// The device pixel ratio is deliberately left out: when Qt's own high-DPI
// scaling is on (QT_SCALE_FACTOR, QT_ENABLE_HIGHDPI_SCALING) Qt already
// multiplies every device-independent pixel by it, and counting it again would
// scale everything twice.
qreal DPIinfo::getDPI() const {
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        return 1.0;
    const QScreen *screen = QGuiApplication::primaryScreen();
    if (!screen)
        return 1.0;
    return scaleFactorForLogicalDpi(screen->logicalDotsPerInch());
}

// Desktops offer scaling in quarter steps (100 %, 125 %, 150 %, 200 %), and the
// DPI they report is often a little off a step (X servers and virtual screens
// like to say 100 DPI at 100 %), so the factor is rounded to the nearest
// quarter. Like Qt's own scaling, it never goes below 1.0: a dialog is never
// drawn smaller than it was designed.
qreal DPIinfo::scaleFactorForLogicalDpi(qreal logical_dpi) {
    if (!std::isfinite(logical_dpi) || logical_dpi <= 0)
        return 1.0;
    const qreal quarters = std::round(logical_dpi / STANDARD_DPI * 4.0);
    return std::max<qreal>(1.0, quarters / 4.0);
}

QString DPIinfo::getScaledStyleSheet(const QString &sheet) const {
    return scaleStyleSheet(sheet, getDPI());
}

QString DPIinfo::scaleStyleSheet(const QString &sheet, qreal factor) {
    if (!std::isfinite(factor) || factor <= 0 || factor == 1.0)
        return sheet;

    QString result;
    result.reserve(sheet.size() + sheet.size() / 8);
    int copied = 0;
    QRegularExpressionMatchIterator it = lengthPattern().globalMatch(sheet);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        if (match.capturedStart(1) < 0)
            continue; // a string, url(...) or comment: copied as it stands
        result += sheet.midRef(copied, match.capturedStart(1) - copied);
        result += formatLength(match.captured(1).toDouble() * factor);
        result += match.captured(2);
        copied = match.capturedEnd(2);
    }
    result += sheet.midRef(copied);
    return result;
}
