#include "tesslocale.h"

#include <QDebug>
#include <QFile>
#include <QLocale>
#include <QMap>

// Language ids are positions in this list; the null pointer ends it.
const char *const TessLocale::grgszLanguages[] = {
    "enu", "cht", "chs", "jpn", "deu", "krn", "fra", "ita", "esn", "ptb",   "rus",
    "dan", "nor", "sve", "nld", "plk", "hun", "ptg", "trk", "csy", nullptr,
};

const QString TessLocale::qstrLanguageFallSafe = QStringLiteral("enu");

namespace {

// Number of languages, not counting the terminating null pointer.
const unsigned LANGUAGE_COUNT = 20;

// Locales whose language part alone would pick the wrong variant. They are
// compared with the whole lower-cased locale name and win over the map below.
// Each list ends with a null string.
const QString rgqstrTraditionalChinese[] = {
    QStringLiteral("zh_tw"),
    QStringLiteral("zh_hk"),
    QStringLiteral("zh_mo"),
    QString(),
};
const QString rgqstrEuropeanPortuguese[] = {
    QStringLiteral("pt"),
    QStringLiteral("pt_pt"),
    QString(),
};

bool isInList(const QString *list, const QString &qstrLocaleLower) {
    for (; !list->isEmpty(); ++list) {
        if (*list == qstrLocaleLower) {
            return true;
        }
    }
    return false;
}

} // namespace

QString TessLocale::getLanguageAbbrByLocaleName(const QString &qstrLocaleLower) {
    // "zh_tw" -> "zh"; a name without a territory stays as it is.
    QString qstrLanguagePart = qstrLocaleLower;
    int separator = qstrLanguagePart.indexOf(QLatin1Char('_'));
    if (separator >= 0) {
        qstrLanguagePart.truncate(separator);
    }

    QMap<QString, QString> mapLanguages;
    mapLanguages.insert(QStringLiteral("en"), QStringLiteral("enu"));
    mapLanguages.insert(QStringLiteral("zh"), QStringLiteral("chs"));
    mapLanguages.insert(QStringLiteral("ja"), QStringLiteral("jpn"));
    mapLanguages.insert(QStringLiteral("de"), QStringLiteral("deu"));
    mapLanguages.insert(QStringLiteral("ko"), QStringLiteral("krn"));
    mapLanguages.insert(QStringLiteral("fr"), QStringLiteral("fra"));
    mapLanguages.insert(QStringLiteral("it"), QStringLiteral("ita"));
    mapLanguages.insert(QStringLiteral("es"), QStringLiteral("esn"));
    mapLanguages.insert(QStringLiteral("pt"), QStringLiteral("ptb"));
    mapLanguages.insert(QStringLiteral("ru"), QStringLiteral("rus"));
    mapLanguages.insert(QStringLiteral("da"), QStringLiteral("dan"));
    // Norwegian comes as the macro-language and as both written standards.
    mapLanguages.insert(QStringLiteral("no"), QStringLiteral("nor"));
    mapLanguages.insert(QStringLiteral("nb"), QStringLiteral("nor"));
    mapLanguages.insert(QStringLiteral("nn"), QStringLiteral("nor"));
    mapLanguages.insert(QStringLiteral("sv"), QStringLiteral("sve"));
    mapLanguages.insert(QStringLiteral("nl"), QStringLiteral("nld"));
    mapLanguages.insert(QStringLiteral("pl"), QStringLiteral("plk"));
    mapLanguages.insert(QStringLiteral("hu"), QStringLiteral("hun"));
    mapLanguages.insert(QStringLiteral("tr"), QStringLiteral("trk"));
    mapLanguages.insert(QStringLiteral("cs"), QStringLiteral("csy"));

    QString qstrDef;
    if (isInList(rgqstrTraditionalChinese, qstrLocaleLower)) {
        qstrDef = QStringLiteral("cht");
    }
    if (isInList(rgqstrEuropeanPortuguese, qstrLocaleLower)) {
        qstrDef = QStringLiteral("ptg");
    }
    if (qstrDef.isEmpty()) {
        qstrDef = mapLanguages.value(qstrLanguagePart, mapLanguages.value(QStringLiteral("en")));
    }
    return qstrDef;
}

QString TessLocale::getDefaultLanguage() {
    QString qstrLocaleLower = QLocale::system().name().toLower();
    qDebug("%s:%d %s=[%s\n] ", __FILE_NAME__, __LINE__, "qPrintable(qstrLocaleLower)",
           qPrintable(qstrLocaleLower));

    QString qstrDef = getLanguageAbbrByLocaleName(qstrLocaleLower);
    // The map names some languages ("fra", "deu", "esn") whose catalogues are
    // not built in; those systems run in English.
    if (!isLanguageInstalled(qstrDef)) {
        qstrDef = qstrLanguageFallSafe;
    }

    qDebug("%s:%d %s=[%s] ", __FILE_NAME__, __LINE__, "qPrintable(qstrDef)", qPrintable(qstrDef));
    return qstrDef;
}

bool TessLocale::isLanguageInstalled(const QString &qstrAbbr) {
    QString qstrLangFileName = QStringLiteral(":/") + qstrAbbr + QStringLiteral(".qm");
    if (!QFile::exists(qstrLangFileName)) {
        return false;
    }
    qDebug("%s:%d %s=[%s] ", __FILE_NAME__, __LINE__, "qPrintable(qstrLangFileName)",
           qPrintable(qstrLangFileName));
    return true;
}

QString TessLocale::getStrLanguageFallSafe() {
    return qstrLanguageFallSafe;
}

QString TessLocale::getLanguageAbbrByID(int id) {
    // Compared as unsigned so that a negative id falls outside the list too.
    // Id LANGUAGE_COUNT is the terminating null pointer, which gives a null
    // string.
    if (static_cast<unsigned>(id) > LANGUAGE_COUNT) {
        return QString();
    }
    return QString::fromLatin1(grgszLanguages[id]);
}

QStringList TessLocale::getSupportedLanguages() {
    QStringList languages;
    for (const char *const *abbr = grgszLanguages; *abbr != nullptr; ++abbr) {
        languages.append(QString::fromLatin1(*abbr));
    }
    return languages;
}
