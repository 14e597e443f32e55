#ifndef QUILLON_UI_COMMON_TESSLOCALE_H
#define QUILLON_UI_COMMON_TESSLOCALE_H

#include <QString>
#include <QStringList>

// Chooses the user-interface language from the system locale. Languages are
// named by three-letter abbreviations ("enu", "cht", "jpn", ...); the
// translation catalogue of a language is the embedded file ":/<abbr>.qm".
// There is no user setting: the system locale alone decides, and English is
// the fall-back whenever the chosen language has no catalogue.
class TessLocale {
public:
    // The abbreviation to use now. Never empty.
    static QString getDefaultLanguage();

    // True when the catalogue ":/<abbr>.qm" is built into the program.
    static bool isLanguageInstalled(const QString &qstrAbbr);

    // The language used when nothing better is installed: "enu".
    static QString getStrLanguageFallSafe();

    // The abbreviation with the given language id (its position in the list),
    // or an empty string for an id outside the list.
    static QString getLanguageAbbrByID(int id);

    // Every known abbreviation, in id order.
    static QStringList getSupportedLanguages();

    // The abbreviation a lower-cased locale name such as "zh_tw" or "pt_br"
    // stands for, before asking whether its catalogue is installed.
    static QString getLanguageAbbrByLocaleName(const QString &qstrLocaleLower);

private:
    static const char *const grgszLanguages[];
    static const QString qstrLanguageFallSafe;
};

#endif
