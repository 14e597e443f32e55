#include "ustring/ustring.h"

#include <QtTest>

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
    }
};

QTEST_GUILESS_MAIN(TestUstring)
#include "test_ustring.moc"
