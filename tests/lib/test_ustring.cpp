#include "ustring/ustring.h"

#include <QtTest>

#include <sstream>

class TestUstring : public QObject {
    Q_OBJECT
    static QByteArray bytes(const ustring &s) { return QByteArray(s.c_str(), int(s.length())); }
    static QString utf16(const ustring &s) { return QString::fromUtf16(s.c_str_utf16()); }

private slots:
    // UTF-8 is the value: valid text goes to UTF-16 and back unchanged, and
    // malformed text keeps its bytes with an empty UTF-16 copy.
    void conversion() {
        const ustring s("zo\xc3\xab \xf0\x9f\x98\x80"), bad("a\x80");
        QCOMPARE(utf16(s), QString::fromUtf8(s.c_str()));
        QCOMPARE(bytes(ustring(s.c_str_utf16())), bytes(s));
        QVERIFY(utf16(bad).isEmpty() && bytes(bad) == "a\x80");

        const ustring nfd = ustring("caf\xc3\xa9").normalize(ustring::NFD);
        QCOMPARE(utf16(nfd), QString::fromUtf8("cafe\xcc\x81"));
        QCOMPARE(bytes(ustring::normalize(nfd, ustring::NFC)), QByteArray("caf\xc3\xa9"));
    }

    // A UTF-16 copy made before a change must never outlive it.
    void changesDropUtf16Copy() {
        ustring s("\xc3\xa9 ");
        QCOMPARE(utf16(s), QString::fromUtf8("\xc3\xa9 "));
        s.append("!");
        QCOMPARE(utf16(s), QString::fromUtf8("\xc3\xa9 !"));
        s += u"\u20ac";
        QCOMPARE(utf16(s), QString::fromUtf8("\xc3\xa9 !\xe2\x82\xac"));
        s = std::string("/srv");
        QCOMPARE(utf16(s), QStringLiteral("/srv"));
        s[1] = 'S';
        QCOMPARE(utf16(s), QStringLiteral("/Srv"));
    }

    // Positions and differences count UTF-8 bytes, taken unsigned; text that
    // cannot be UTF-8 empties the string; a failed allocation changes nothing.
    void byteOperations() {
        const ustring p("/a/b//c\xc3\xa9.txt");
        QList<qint64> numbers; // each result followed by what it must be
        numbers << p.find('/', 1) << 2 << p.find("//") << 4 << p.find(ustring("\xa9")) << 8
                << p.rfind('/') << 5 << p.rfind("/", 4) << 4 << p.find_first_of("bc") << 3
                << p.find_last_of(".") << 9 << p.find_last_not_of("tx") << 9
                << p.find_first_not_of('/') << 1 << p.find(std::string("z"))
                << qint64(ustring::npos) // as the list holds it, 32 or 64 bits wide
                << ustring::compare("abc", "ABD", true) << -1 << ustring::compare("a", "B", false)
                << 31 << ustring("\xc3\xa9").compare("z") << 73
                << ustring("abcX").compare("abcY", 3) << 0 << ustring("ab").compare("ab", 5) << 0
                << ustring("ab").compare("abc", 3) << -99;
        for (int i = 0; i < numbers.size(); i += 2)
            QCOMPARE(numbers[i], numbers[i + 1]);

        ustring cut("abcdef"), twice("ab"), same(p), other("x"), wide("\xc3\xa9t\xc3\xa9");
        swap(same, other);
        const std::pair<QByteArray, QByteArray> texts[] = {
            {bytes(ustring(p).ltrim("/a") + ustring(p).rtrim(ustring(".tx"))),
             "b//c\xc3\xa9.txt/a/b//c\xc3\xa9"},
            {bytes(ustring("//").ltrim("/") + ustring("//").trim("") + ustring("//").rtrim("/") +
                   ustring("ab").ltrim("b")),
             "//ab"},
            {bytes(ustring(p).replace('/', '\\') + ustring(p).replace('.', '\0').replace('z', 'y')),
             "\\a\\b\\\\c\xc3\xa9.txt/a/b//c\xc3\xa9"},
            {bytes(p.substr(7, 2) + p.substr(9) + p.substr(99)), "\xc3\xa9.txt"},
            {bytes(ustring(std::string("a")).assign(std::string("abc"), 1, 1) +
                   ustring("x").assign(std::string("abc"), 3) +
                   ustring("x").assign(ustring("cd"), 1) + ustring("x").assign("ef", 1) +
                   ustring("x").assign(2, 'g') + ustring("x").assign(2, u'\u00e9') +
                   ustring("x").assign(u"\u00e9!", 1)),
             "bdegg\xc3\xa9\xc3\xa9\xc3\xa9"},
            {bytes(ustring("a").append(std::string("xyz"), 1, 1).append(ustring("xyz"), 2) +
                   ustring("b").append(1, 'b').append(1, u'\u20ac').append("")),
             "ayzbb\xe2\x82\xac"},
            {bytes('<' + (u"\u00e9" + ("[" + (u'b' + ustring("c")) + "]") + '-' + u"g" + u'h') +
                   ustring(">")),
             "<\xc3\xa9[bc]-gh>"},
            {bytes(cut.assign(cut.c_str() + 2, 3)) + bytes(twice += twice) + bytes(same) +
                 bytes(other.assign(other.c_str())) +
                 bytes(wide.assign(wide.c_str_utf16()).assign(wide.c_str_utf16() + 1)),
             "cdeababx/a/b//c\xc3\xa9.txtt\xc3\xa9"},
            {bytes(ustring(u"a\xd800")) + bytes(ustring("abc").append(u"\xdc00")) +
                 bytes(ustring("a").assign(u"")),
             ""},
        };
        for (const auto &[text, expected] : texts)
            QCOMPARE(text, expected);
        QVERIFY(ustring("a") < ustring("b") && ustring("\xc3\xa9") > ustring("z") && p <= p &&
                p >= p && ustring("ab") != ustring("ac") && ustring("a") != ustring("ab"));
        QVERIFY(ustring::is_valid("") && ustring::is_valid(p) && !ustring::is_valid("a\x80") &&
                ustring().normalize(ustring::NFC).empty());

        std::istringstream(" word rest") >> other;
        QVERIFY_EXCEPTION_THROWN(other.append(ustring::npos, 'x'), std::bad_alloc);
        QVERIFY_EXCEPTION_THROWN(other.assign(ustring::npos, u'x'), std::bad_alloc);
        QCOMPARE(bytes(other), QByteArray("word"));
    }
};

QTEST_GUILESS_MAIN(TestUstring)
#include "test_ustring.moc"
