// Runs the updater's start-up language steps under the locale its environment
// gives, then prints what they chose, one "key=value" line each (UTF-8):
//   system_locale  the name Qt derived from the environment
//   language       the chosen abbreviation
//   file           the catalogue the program loads
//   installed      "yes" when a catalogue was installed into the application
//   exit_text      string-table entry 14 ("Exit") as the program shows it
// test_language_selection starts it once per locale.

#include <QApplication>
#include <QEvent>
#include <QLocale>

#include <clocale>
#include <cstdio>

#include "app-setup.h"
#include "tesslocale.h"
#include "texts/strtab.h"

namespace {

// Installing a translator sends the application a LanguageChange event; an
// empty catalogue is left uninstalled and sends none.
class LanguageChangeCounter : public QObject {
public:
    int count = 0;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override {
        if (event->type() == QEvent::LanguageChange) {
            ++count;
        }
        return QObject::eventFilter(watched, event);
    }
};

void print(const char *key, const QString &value) {
    std::printf("%s=%s\n", key, value.toUtf8().constData());
}

} // namespace

int main(int argc, char **argv) {
    std::setlocale(LC_ALL, "");
    QApplication app(argc, argv);
    LanguageChangeCounter counter;
    app.installEventFilter(&counter);

    initializeLanguage(app);

    print("system_locale", QLocale::system().name());
    print("language", TessLocale::getDefaultLanguage());
    print("file", getCurrentLanguageFileName());
    print("installed", counter.count > 0 ? QStringLiteral("yes") : QStringLiteral("no"));
    print("exit_text", StrTable::LoadStr(14));
    return 0;
}
