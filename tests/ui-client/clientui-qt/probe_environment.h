#ifndef PROBE_ENVIRONMENT_H
#define PROBE_ENVIRONMENT_H

#include <QProcessEnvironment>

// The environment for the helper programs of these tests. In a sanitizer
// build the helpers are leak-checked too, minus what Qt's offscreen platform
// leaks on its own (see cmake/lsan-suppressions.txt).
inline QProcessEnvironment probeEnvironment() {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    const auto append = [&env](const QString &name, const QString &option) {
        const QString value = env.value(name);
        env.insert(name, value.isEmpty() ? option : value + QLatin1Char(':') + option);
    };
    append(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("fast_unwind_on_malloc=0"));
    append(QStringLiteral("LSAN_OPTIONS"), QStringLiteral("suppressions=" OFFSCREEN_LEAKS));
    return env;
}

#endif // PROBE_ENVIRONMENT_H
