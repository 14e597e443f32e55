#include "ustring/ustring.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryFile>
#include <QtTest>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <sstream>
#include <string>
#include <unistd.h>

// The allocation-failure cases ask for more memory than the address space
// holds. Under AddressSanitizer such a request must come back as a null
// pointer, as it does from glibc, instead of ending the process.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

const size_t npos = ustring::npos;

QByteArray bytes(const ustring &s) {
    return QByteArray(s.c_str(), int(s.length()));
}

QString utf16(const ustring &s) {
    return QString::fromUtf16(s.c_str_utf16());
}

// Redirects file descriptor 2 into a temporary file until take() or
// destruction, so that what the string type writes to standard error can be
// checked.
class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        if (file.open()) {
            saved = ::dup(2);
            ::dup2(file.handle(), 2);
        }
    }
    ~StderrCapture() { restore(); }
    bool active() const { return saved >= 0; }
    QByteArray take() {
        restore();
        QFile in(file.fileName());
        return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray("<unreadable>");
    }

private:
    void restore() {
        if (saved < 0)
            return;
        std::fflush(stderr);
        ::dup2(saved, 2);
        ::close(saved);
        saved = -1;
    }
    QTemporaryFile file;
    int saved = -1;
};

bool isOneWarning(const QByteArray &text, const char *function) {
    const QRegularExpression re(
        QStringLiteral("^Warning: %1: error code [1-9][0-9]* at line [0-9]+\\n$")
            .arg(QLatin1String(function)));
    return re.match(QString::fromLatin1(text)).hasMatch();
}

// One way of making a string, and one change of a string's text.
using Make = std::function<ustring()>;
using Change = std::function<void(ustring &)>;

} // namespace

Q_DECLARE_METATYPE(Make)
Q_DECLARE_METATYPE(Change)

class TestUstring : public QObject {
    Q_OBJECT

private slots:
    void construction_data();
    void construction();
    void utf8Validity_data();
    void utf8Validity();
    void malformedUtf16_data();
    void malformedUtf16();
    void normalization_data();
    void normalization();
    void changesDropUtf16Copy_data();
    void changesDropUtf16Copy();
    void selfAssignment();
    void selfAppend();
    void compare_data();
    void compare();
    void compareFirstBytes_data();
    void compareFirstBytes();
    void search_data();
    void search();
    void trim_data();
    void trim();
    void bufferCapacity_data();
    void bufferCapacity();
    void allocationFailureKeepsText_data();
    void allocationFailureKeepsText();
    void substr_data();
    void substr();
    void replaceBytes();
    void concatenation();
    void streams();
    void swapExchangesEverything();
};

void TestUstring::construction_data() {
    QTest::addColumn<Make>("make");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("default") << Make([] { return ustring(); }) << QByteArray();
    QTest::newRow("pointer") << Make([] { return ustring("zo\xc3\xab"); })
                             << QByteArray("zo\xc3\xab");
    QTest::newRow("pointer empty") << Make([] { return ustring(""); }) << QByteArray();
    QTest::newRow("std::string stops at NUL")
        << Make([] { return ustring(std::string("ab\0cd", 5)); }) << QByteArray("ab");
    QTest::newRow("char") << Make([] { return ustring('x'); }) << QByteArray("x");
    QTest::newRow("char NUL") << Make([] { return ustring('\0'); }) << QByteArray();
    QTest::newRow("utf16") << Make([] { return ustring(u"\u65e5\u672c"); })
                           << QByteArray("\xe6\x97\xa5\xe6\x9c\xac");
    QTest::newRow("utf16 surrogate pair")
        << Make([] { return ustring(u"a\U0001F600"); }) << QByteArray("a\xf0\x9f\x98\x80");
    QTest::newRow("copy") << Make([] {
        const ustring original("copy \xc3\xa9");
        return ustring(original);
    }) << QByteArray("copy \xc3\xa9");
}

void TestUstring::construction() {
    QFETCH(Make, make);
    QFETCH(QByteArray, expected);

    const ustring s = make();
    QCOMPARE(bytes(s), expected);
    QCOMPARE(std::strlen(s.c_str()), s.length());
    QCOMPARE(utf16(s), QString::fromUtf8(expected));
}

void TestUstring::utf8Validity_data() {
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("valid");

    QTest::newRow("empty") << QByteArray("") << true;
    QTest::newRow("two bytes") << QByteArray("\xc3\xa9") << true;
    QTest::newRow("four bytes") << QByteArray("\xf0\x9f\x98\x80") << true;
    QTest::newRow("stray continuation") << QByteArray("a\x80") << false;
    QTest::newRow("truncated at end") << QByteArray("ab\xe2\x82") << false;
    QTest::newRow("overlong NUL") << QByteArray("\xc0\x80") << false;
    QTest::newRow("encoded surrogate") << QByteArray("\xed\xa0\x80") << false;
    QTest::newRow("beyond U+10FFFF") << QByteArray("\xf4\x90\x80\x80") << false;
}

void TestUstring::utf8Validity() {
    QFETCH(QByteArray, text);
    QFETCH(bool, valid);

    const ustring s(text.constData());
    QCOMPARE(ustring::is_valid(s), valid);
    QCOMPARE(ustring::is_valid(text.constData()), valid);

    StderrCapture capture;
    QVERIFY(capture.active());
    const uchar16_t *converted = s.c_str_utf16();
    const QByteArray warnings = capture.take();

    // The UTF-8 text is the value and never suffers from a failed conversion.
    QCOMPARE(bytes(s), text);
    if (valid) {
        QCOMPARE(warnings, QByteArray());
        QCOMPARE(QString::fromUtf16(converted), QString::fromUtf8(text));
        QCOMPARE(bytes(ustring(converted)), text);
    } else {
        QCOMPARE(converted[0], uchar16_t(0));
        QVERIFY2(isOneWarning(warnings, "u_strFromUTF8"), warnings.constData());
    }
}

void TestUstring::malformedUtf16_data() {
    QTest::addColumn<QString>("units");

    QTest::newRow("lone high surrogate") << QString(QChar(0xD800));
    QTest::newRow("lone low surrogate") << QString(QChar(0xDC00));
    QTest::newRow("high then letter") << (QString(QChar(0xD83D)) + QLatin1Char('a'));
}

// Text that has no UTF-8 form leaves the whole string empty, whether it was
// to replace or to extend the text.
void TestUstring::malformedUtf16() {
    QFETCH(QString, units);
    const uchar16_t *ws = reinterpret_cast<const uchar16_t *>(units.utf16());

    for (const bool append : {false, true}) {
        ustring s("keep \xc3\xa9");
        StderrCapture capture;
        QVERIFY(capture.active());
        if (append)
            s.append(ws);
        else
            s.assign(ws);
        const QByteArray warnings = capture.take();
        QVERIFY(s.empty());
        QCOMPARE(s.c_str()[0], '\0');
        QCOMPARE(s.c_str_utf16()[0], uchar16_t(0));
        QVERIFY2(isOneWarning(warnings, "u_strToUTF8"), warnings.constData());
    }
}

void TestUstring::normalization_data() {
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("nfd");
    QTest::addColumn<QByteArray>("nfc");
    QTest::addColumn<bool>("warns");

    QTest::newRow("precomposed e acute") << QByteArray("caf\xc3\xa9") << QByteArray("cafe\xcc\x81")
                                         << QByteArray("caf\xc3\xa9") << false;
    QTest::newRow("angstrom sign is a singleton")
        << QByteArray("\xe2\x84\xab") << QByteArray("A\xcc\x8a") << QByteArray("\xc3\x85") << false;
    QTest::newRow("empty") << QByteArray("") << QByteArray("") << QByteArray("") << false;
    QTest::newRow("malformed") << QByteArray("a\xff") << QByteArray("") << QByteArray("") << true;
}

void TestUstring::normalization() {
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, nfd);
    QFETCH(QByteArray, nfc);
    QFETCH(bool, warns);

    const ustring text(input.constData());
    StderrCapture capture;
    QVERIFY(capture.active());
    const ustring decomposed = text.normalize(ustring::NFD);
    const ustring composed = ustring::normalize(text, ustring::NFC);
    const QByteArray warnings = capture.take();

    QCOMPARE(bytes(decomposed), nfd);
    QCOMPARE(bytes(composed), nfc);
    QCOMPARE(bytes(decomposed.normalize(ustring::NFC)), nfc);
    QCOMPARE(bytes(composed.normalize(ustring::NFD)), nfd);
    // The result's UTF-16 copy belongs to the result, not to the input.
    QCOMPARE(utf16(decomposed), QString::fromUtf8(nfd));
    QCOMPARE(utf16(composed), QString::fromUtf8(nfc));
    QCOMPARE(bytes(text), input);
    QCOMPARE(warnings.isEmpty(), !warns);
}

// Every change of the text must drop a UTF-16 copy made before it; a stale
// copy would hand the old text to whoever asks for UTF-16.
void TestUstring::changesDropUtf16Copy_data() {
    QTest::addColumn<Change>("change");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray start("h\xc3\xa9llo w\xc3\xb6rld ");
    QTest::newRow("append") << Change([](ustring &s) { s.append("and more"); })
                            << start + "and more";
    QTest::newRow("append counted")
        << Change([](ustring &s) { s.append("xyz", 2); }) << start + "xy";
    QTest::newRow("append self") << Change([](ustring &s) { s.append(s); }) << start + start;
    QTest::newRow("append utf16") << Change([](ustring &s) { s.append(u"\u20ac"); })
                                  << start + "\xe2\x82\xac";
    QTest::newRow("append units") << Change([](ustring &s) { s.append(2, u'\u00e9'); })
                                  << start + "\xc3\xa9\xc3\xa9";
    QTest::newRow("append chars") << Change([](ustring &s) { s.append(2, '-'); }) << start + "--";
    QTest::newRow("assign") << Change([](ustring &s) { s.assign("other"); }) << QByteArray("other");
    QTest::newRow("assign counted")
        << Change([](ustring &s) { s.assign("abcdef", 4); }) << QByteArray("abcd");
    QTest::newRow("assign utf16 counted")
        << Change([](ustring &s) { s.assign(u"\u00e9t\u00e9", 2); }) << QByteArray("\xc3\xa9t");
    QTest::newRow("assign units") << Change([](ustring &s) { s.assign(2, u'\u20ac'); })
                                  << QByteArray("\xe2\x82\xac\xe2\x82\xac");
    QTest::newRow("assign no chars")
        << Change([](ustring &s) { s.assign(0, 'x'); }) << QByteArray();
    QTest::newRow("replace") << Change([](ustring &s) { s.replace(' ', '_'); })
                             << QByteArray("h\xc3\xa9llo_w\xc3\xb6rld_");
    QTest::newRow("rtrim") << Change([](ustring &s) { s.rtrim(" "); })
                           << QByteArray("h\xc3\xa9llo w\xc3\xb6rld");
    QTest::newRow("ltrim") << Change([](ustring &s) { s.ltrim("h\xc3\xa9"); })
                           << QByteArray("llo w\xc3\xb6rld ");
    QTest::newRow("clear") << Change([](ustring &s) { s.clear(); }) << QByteArray();
    QTest::newRow("index write") << Change([](ustring &s) { s[0] = 'H'; })
                                 << QByteArray("H\xc3\xa9llo w\xc3\xb6rld ");
}

void TestUstring::changesDropUtf16Copy() {
    QFETCH(Change, change);
    QFETCH(QByteArray, expected);

    ustring s("h\xc3\xa9llo w\xc3\xb6rld ");
    QCOMPARE(utf16(s), QString::fromUtf8("h\xc3\xa9llo w\xc3\xb6rld "));
    change(s);
    QCOMPARE(bytes(s), expected);
    QCOMPARE(utf16(s), QString::fromUtf8(expected));
}

void TestUstring::selfAssignment() {
    ustring s("abcdef");
    const char *buffer = s.c_str();
    s = s.c_str();
    QCOMPARE(bytes(s), QByteArray("abcdef"));
    QCOMPARE(s.c_str(), buffer);

    s.assign(s.c_str(), 3);
    QCOMPARE(bytes(s), QByteArray("abc"));
    s.assign(s.c_str(), 10); // a longer count than the text changes nothing
    QCOMPARE(bytes(s), QByteArray("abc"));
    s.assign(s.c_str() + 1);
    QCOMPARE(bytes(s), QByteArray("bc"));
    const ustring &same = s;
    s = same;
    QCOMPARE(bytes(s), QByteArray("bc"));
    s.assign(s, 1, 5);
    QCOMPARE(bytes(s), QByteArray("c"));

    ustring w(u"\u00e9a");
    w.assign(w.c_str_utf16());
    QCOMPARE(bytes(w), QByteArray("\xc3\xa9"
                                  "a"));
    w.assign(w.c_str_utf16() + 1);
    QCOMPARE(bytes(w), QByteArray("a"));
    QCOMPARE(utf16(w), QStringLiteral("a"));
}

// Appending a string to itself must survive the buffer moving under it.
void TestUstring::selfAppend() {
    ustring s("0123456789");
    s.append(s);
    QCOMPARE(bytes(s), QByteArray("01234567890123456789"));
    s += s.c_str();
    QCOMPARE(s.length(), size_t(40));
    QCOMPARE(bytes(s), QByteArray("0123456789").repeated(4));
    s.assign("abc");
    s.append(s.c_str() + 1, 1);
    QCOMPARE(bytes(s), QByteArray("abcb"));
    s.append(s, 2);
    QCOMPARE(bytes(s), QByteArray("abcbcb"));
    s += s;
    QCOMPARE(bytes(s), QByteArray("abcbcbabcbcb"));

    ustring w(u"\u00e9\u00e8");
    w.append(w.c_str_utf16());
    QCOMPARE(bytes(w), QByteArray("\xc3\xa9\xc3\xa8\xc3\xa9\xc3\xa8"));
}

void TestUstring::compare_data() {
    QTest::addColumn<QByteArray>("a");
    QTest::addColumn<QByteArray>("b");
    QTest::addColumn<bool>("ignoreCase");
    QTest::addColumn<int>("expected");

    QTest::newRow("abc ABD folded")
        << QByteArray("abc") << QByteArray("ABD") << true << int('c' - 'd');
    QTest::newRow("a B exact") << QByteArray("a") << QByteArray("B") << false << int('a' - 'B');
    QTest::newRow("a B folded") << QByteArray("a") << QByteArray("B") << true << int('a' - 'b');
    QTest::newRow("equal folded") << QByteArray("MiXeD") << QByteArray("mixed") << true << 0;
    QTest::newRow("equal exact") << QByteArray("same") << QByteArray("same") << false << 0;
    QTest::newRow("folds down, not up")
        << QByteArray("[") << QByteArray("A") << true << int('[' - 'a');
    QTest::newRow("e acute is not folded")
        << QByteArray("\xc3\xa9") << QByteArray("\xc3\x89") << true << 0xa9 - 0x89;
    QTest::newRow("bytes are unsigned")
        << QByteArray("\xc3\xa9") << QByteArray("z") << false << 0xc3 - 'z';
    QTest::newRow("prefix is smaller")
        << QByteArray("ab") << QByteArray("abc") << false << -int('c');
    QTest::newRow("longer is greater") << QByteArray("abc") << QByteArray("AB") << true << int('c');
    QTest::newRow("both empty") << QByteArray("") << QByteArray("") << true << 0;
}

void TestUstring::compare() {
    QFETCH(QByteArray, a);
    QFETCH(QByteArray, b);
    QFETCH(bool, ignoreCase);
    QFETCH(int, expected);

    const ustring x(a.constData());
    const ustring y(b.constData());
    QCOMPARE(ustring::compare(a.constData(), b.constData(), ignoreCase), expected);
    QCOMPARE(ustring::compare(x, y, ignoreCase), expected);
    if (!ignoreCase) {
        QCOMPARE(x.compare(y), expected);
        QCOMPARE(x == y, expected == 0);
        QCOMPARE(x != y, expected != 0);
        QCOMPARE(x < y, expected < 0);
        QCOMPARE(x > y, expected > 0);
        QCOMPARE(x <= y, expected <= 0);
        QCOMPARE(x >= y, expected >= 0);
    }
}

void TestUstring::compareFirstBytes_data() {
    QTest::addColumn<QByteArray>("a");
    QTest::addColumn<QByteArray>("b");
    QTest::addColumn<qulonglong>("n");
    QTest::addColumn<int>("sign");

    QTest::newRow("differs after n") << QByteArray("abcX") << QByteArray("abcY") << 3ULL << 0;
    QTest::newRow("differs at n") << QByteArray("abcX") << QByteArray("abcY") << 4ULL << -1;
    QTest::newRow("common end before n") << QByteArray("abc") << QByteArray("abc") << 10ULL << 0;
    QTest::newRow("shorter before n") << QByteArray("ab") << QByteArray("abc") << 10ULL << -1;
    QTest::newRow("zero bytes") << QByteArray("x") << QByteArray("y") << 0ULL << 0;
    QTest::newRow("case matters") << QByteArray("abc") << QByteArray("ABC") << 1ULL << 1;
}

void TestUstring::compareFirstBytes() {
    QFETCH(QByteArray, a);
    QFETCH(QByteArray, b);
    QFETCH(qulonglong, n);
    QFETCH(int, sign);
    const int result = ustring(a.constData()).compare(ustring(b.constData()), size_t(n));
    QCOMPARE((result > 0) - (result < 0), sign);
}

void TestUstring::search_data() {
    QTest::addColumn<QString>("function");
    QTest::addColumn<QByteArray>("haystack");
    QTest::addColumn<QByteArray>("needle");
    QTest::addColumn<qulonglong>("pos");
    QTest::addColumn<qulonglong>("expected");

    const QByteArray hw("hello world"); // h0 e1 l2 l3 o4 _5 w6 o7 r8 l9 d10
    const qulonglong none = npos;

    QTest::newRow("find from pos") << "find" << hw << QByteArray("o") << 5ULL << 7ULL;
    QTest::newRow("find word") << "find" << hw << QByteArray("world") << 0ULL << 6ULL;
    QTest::newRow("find beyond end") << "find" << hw << QByteArray("o") << 20ULL << none;
    QTest::newRow("rfind before pos") << "rfind" << hw << QByteArray("o") << 6ULL << 4ULL;
    QTest::newRow("first_of from pos") << "find_first_of" << hw << QByteArray("ol") << 5ULL << 7ULL;
    QTest::newRow("first_not_of") << "find_first_not_of" << hw << QByteArray("h") << 0ULL << 1ULL;
    QTest::newRow("last_of") << "find_last_of" << hw << QByteArray("l") << none << 9ULL;
    QTest::newRow("last_not_of before pos")
        << "find_last_not_of" << hw << QByteArray("o") << 7ULL << 6ULL;
}

// Every needle form (pointer, ustring, byte string and, for one byte, the
// character) must find the same position.
void TestUstring::search() {
    QFETCH(QString, function);
    QFETCH(QByteArray, haystack);
    QFETCH(QByteArray, needle);
    QFETCH(qulonglong, pos);
    QFETCH(qulonglong, expected);

    const ustring s(haystack.constData());
    const char *p = needle.constData();
    const ustring u(p);
    const std::string b(p);
    const size_t at = size_t(pos);
    QList<size_t> results;
#define SEARCH_ALL_FORMS(name)                                                                     \
    do {                                                                                           \
        results << s.name(p, at) << s.name(u, at) << s.name(b, at);                                \
        if (needle.size() == 1)                                                                    \
            results << s.name(needle.at(0), at);                                                   \
    } while (0)
    if (function == QLatin1String("find"))
        SEARCH_ALL_FORMS(find);
    else if (function == QLatin1String("rfind"))
        SEARCH_ALL_FORMS(rfind);
    else if (function == QLatin1String("find_first_of"))
        SEARCH_ALL_FORMS(find_first_of);
    else if (function == QLatin1String("find_first_not_of"))
        SEARCH_ALL_FORMS(find_first_not_of);
    else if (function == QLatin1String("find_last_of"))
        SEARCH_ALL_FORMS(find_last_of);
    else if (function == QLatin1String("find_last_not_of"))
        SEARCH_ALL_FORMS(find_last_not_of);
    else
        QFAIL("unknown function");
#undef SEARCH_ALL_FORMS
    for (size_t result : results)
        QCOMPARE(qulonglong(result), expected);
}

void TestUstring::trim_data() {
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("set");
    QTest::addColumn<QByteArray>("left");
    QTest::addColumn<QByteArray>("right");
    QTest::addColumn<QByteArray>("both");

    QTest::newRow("whitespace") << QByteArray(" \t a b \n") << QByteArray(" \t\n")
                                << QByteArray("a b \n") << QByteArray(" \t a b")
                                << QByteArray("a b");
    QTest::newRow("letters") << QByteArray("xxabxx") << QByteArray("x") << QByteArray("abxx")
                             << QByteArray("xxab") << QByteArray("ab");
    QTest::newRow("everything dropped")
        << QByteArray("aaaa") << QByteArray("a") << QByteArray() << QByteArray() << QByteArray();
    QTest::newRow("empty set") << QByteArray("  a  ") << QByteArray() << QByteArray("  a  ")
                               << QByteArray("  a  ") << QByteArray("  a  ");
    QTest::newRow("empty text") << QByteArray() << QByteArray(" ") << QByteArray() << QByteArray()
                                << QByteArray();
    QTest::newRow("set is bytes") << QByteArray("\xc3\xa9"
                                                "b\xc3\xa9")
                                  << QByteArray("\xc3\xa9") << QByteArray("b\xc3\xa9")
                                  << QByteArray("\xc3\xa9"
                                                "b")
                                  << QByteArray("b");
}

void TestUstring::trim() {
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, set);
    QFETCH(QByteArray, left);
    QFETCH(QByteArray, right);
    QFETCH(QByteArray, both);

    for (const bool as_ustring : {false, true}) {
        const ustring set_u(set.constData());
        ustring l(text.constData()), r(text.constData()), t(text.constData());
        l.c_str_utf16();
        r.c_str_utf16();
        t.c_str_utf16();
        if (as_ustring) {
            l.ltrim(set_u);
            r.rtrim(set_u);
            t.trim(set_u);
        } else {
            l.ltrim(set.constData());
            r.rtrim(set.constData());
            t.trim(set.constData());
        }
        QCOMPARE(bytes(l), left);
        QCOMPARE(bytes(r), right);
        QCOMPARE(bytes(t), both);
        QCOMPARE(utf16(l), QString::fromUtf8(left));
        QCOMPARE(utf16(r), QString::fromUtf8(right));
        QCOMPARE(utf16(t), QString::fromUtf8(both));
    }
}

// Buffers grow to exactly what is needed and shrink only when what is needed
// falls below half of what is held. Sizes count the terminator.
void TestUstring::bufferCapacity_data() {
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("second");
    QTest::addColumn<int>("capacity");
    QTest::addColumn<int>("wcapacity");

    QTest::newRow("grows to exact size") << 0 << 10 << 11 << 11;
    QTest::newRow("fits in a new string") << 0 << 3 << 4 << 4;
    QTest::newRow("a little shorter stays") << 10 << 8 << 11 << 11;
    QTest::newRow("exactly half stays") << 100 << 50 << 101 << 101;
    QTest::newRow("below half shrinks") << 100 << 49 << 50 << 50;
    QTest::newRow("emptied shrinks") << 100 << 0 << 1 << 1;
    QTest::newRow("grows from shrunk") << 5 << 7 << 8 << 8;
}

void TestUstring::bufferCapacity() {
    QFETCH(int, first);
    QFETCH(int, second);
    QFETCH(int, capacity);
    QFETCH(int, wcapacity);

    ustring s;
    if (first > 0) {
        s.assign(size_t(first), 'x');
        s.c_str_utf16();
        QCOMPARE(s.capacity(), size_t(first + 1));
        QCOMPARE(s.wcapacity(), size_t(qMax(first + 1, 4)));
    }
    s.assign(std::string(size_t(second), 'y'));
    QCOMPARE(s.capacity(), size_t(capacity));
    QCOMPARE(utf16(s), QString(second, QLatin1Char('y')));
    QCOMPARE(s.wcapacity(), size_t(wcapacity));
}

// Sizes beyond memory, or beyond what size_t holds: the request fails
// before anything is changed.
void TestUstring::allocationFailureKeepsText_data() {
    QTest::addColumn<Change>("change");

    static const size_t beyond_memory = std::numeric_limits<size_t>::max() / 4;
    static const size_t wraps = std::numeric_limits<size_t>::max();
    QTest::newRow("assign bytes") << Change([](ustring &s) { s.assign(beyond_memory, 'x'); });
    QTest::newRow("append bytes, size wraps") << Change([](ustring &s) { s.append(wraps, 'x'); });
    QTest::newRow("assign units") << Change([](ustring &s) { s.assign(beyond_memory, u'e'); });
    QTest::newRow("append units") << Change([](ustring &s) { s.append(beyond_memory, u'e'); });
}

void TestUstring::allocationFailureKeepsText() {
    QFETCH(Change, change);

    ustring s("keep \xc3\xa9");
    QCOMPARE(utf16(s), QString::fromUtf8("keep \xc3\xa9"));
    QVERIFY_EXCEPTION_THROWN(change(s), std::bad_alloc);
    QCOMPARE(bytes(s), QByteArray("keep \xc3\xa9"));
    QCOMPARE(utf16(s), QString::fromUtf8("keep \xc3\xa9"));
    s.append("!");
    QCOMPARE(bytes(s), QByteArray("keep \xc3\xa9!"));
}

void TestUstring::substr_data() {
    QTest::addColumn<qulonglong>("pos");
    QTest::addColumn<qulonglong>("count");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("whole") << 0ULL << qulonglong(npos) << QByteArray("/home/zo\xc3\xab");
    QTest::newRow("middle") << 1ULL << 4ULL << QByteArray("home");
    QTest::newRow("tail") << 6ULL << qulonglong(npos) << QByteArray("zo\xc3\xab");
    QTest::newRow("count past end") << 6ULL << 100ULL << QByteArray("zo\xc3\xab");
    QTest::newRow("at end") << 10ULL << 3ULL << QByteArray();
    QTest::newRow("past end") << 11ULL << 3ULL << QByteArray();
    QTest::newRow("zero count") << 2ULL << 0ULL << QByteArray();
}

void TestUstring::substr() {
    QFETCH(qulonglong, pos);
    QFETCH(qulonglong, count);
    QFETCH(QByteArray, expected);
    const ustring s("/home/zo\xc3\xab");
    QCOMPARE(bytes(s.substr(size_t(pos), size_t(count))), expected);
    ustring a("x");
    a.append(s, size_t(pos), size_t(count));
    QCOMPARE(bytes(a), "x" + expected);
    ustring b("x");
    b.assign(std::string(s.c_str()), size_t(pos), size_t(count));
    QCOMPARE(bytes(b), expected);
}

void TestUstring::replaceBytes() {
    ustring s("a/b/c");
    s.replace('/', '\\');
    QCOMPARE(bytes(s), QByteArray("a\\b\\c"));
    s.replace('x', 'y');
    QCOMPARE(bytes(s), QByteArray("a\\b\\c"));
    // The text cannot hold a NUL: replacing by one ends the text there.
    s.replace('\\', '\0');
    QCOMPARE(bytes(s), QByteArray("a"));
    QCOMPARE(std::strlen(s.c_str()), s.length());
}

void TestUstring::concatenation() {
    const ustring base("ab");
    QCOMPARE(bytes(base + ustring("cd")), QByteArray("abcd"));
    QCOMPARE(bytes(base + "cd"), QByteArray("abcd"));
    QCOMPARE(bytes("cd" + base), QByteArray("cdab"));
    QCOMPARE(bytes(base + 'c'), QByteArray("abc"));
    QCOMPARE(bytes('c' + base), QByteArray("cab"));
    QCOMPARE(bytes(base + u"\u00e9"), QByteArray("ab\xc3\xa9"));
    QCOMPARE(bytes(u"\u00e9" + base), QByteArray("\xc3\xa9"
                                                 "ab"));
    QCOMPARE(bytes(base + u'\u00e9'), QByteArray("ab\xc3\xa9"));
    QCOMPARE(bytes(u'\u00e9' + base), QByteArray("\xc3\xa9"
                                                 "ab"));
    QCOMPARE(bytes(base), QByteArray("ab"));
}

void TestUstring::streams() {
    std::ostringstream out;
    out << ustring("zo\xc3\xab") << '|' << ustring();
    QCOMPARE(QByteArray::fromStdString(out.str()), QByteArray("zo\xc3\xab|"));

    std::istringstream in("  h\xc3\xa9llo\tworld\n");
    ustring first, second, third("untouched");
    in >> first >> second;
    QCOMPARE(bytes(first), QByteArray("h\xc3\xa9llo"));
    QCOMPARE(bytes(second), QByteArray("world"));
    QVERIFY(!(in >> third));
    QCOMPARE(bytes(third), QByteArray("untouched"));
}

// Both texts and their UTF-16 copies change hands.
void TestUstring::swapExchangesEverything() {
    ustring a("first \xc3\xa9 and a longer text");
    ustring b("second");
    QCOMPARE(utf16(a), QString::fromUtf8("first \xc3\xa9 and a longer text"));

    swap(a, b);
    QCOMPARE(bytes(a), QByteArray("second"));
    QCOMPARE(bytes(b), QByteArray("first \xc3\xa9 and a longer text"));
    QCOMPARE(utf16(a), QStringLiteral("second"));
    QCOMPARE(utf16(b), QString::fromUtf8("first \xc3\xa9 and a longer text"));
}

QTEST_GUILESS_MAIN(TestUstring)
#include "test_ustring.moc"
