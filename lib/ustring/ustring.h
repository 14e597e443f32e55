#ifndef QUILLON_LIB_USTRING_USTRING_H
#define QUILLON_LIB_USTRING_USTRING_H

#include <cstddef>
#include <iosfwd>
#include <string>

// One UTF-16 code unit. char16_t is what ICU's UChar is in C++, so buffers of
// this type go to ICU without conversion and u"..." literals can be used.
typedef char16_t uchar16_t;

// The common library's text type: NUL-terminated UTF-8 that is the value, plus
// a UTF-16 copy made only when asked for and dropped on every change of the
// UTF-8 text. Lengths, positions, searches and comparisons count UTF-8 bytes.
//
// The text never holds a NUL byte: every input stops at its first NUL, so
// length() always equals strlen(c_str()) and ICU sees the same text.
//
// Not thread-safe, not even for const use: c_str_utf16() fills the cache.
// Allocation failure throws std::bad_alloc and leaves the text unchanged.
class ustring {
public:
    static constexpr size_t npos = static_cast<size_t>(-1);

    enum normalization_form {
        NFC = 0,
        NFD = 1,
    };

    ustring();
    ustring(const char *s);
    ustring(const std::string &s);
    ustring(char c);
    ustring(const uchar16_t *ws);
    ustring(const ustring &other);
    ~ustring();

    void swap(ustring &other) noexcept;

    // Reading.
    const char *c_str() const { return data; }
    const char *c_str_utf8() const { return data; }
    const uchar16_t *c_str_utf16() const;
    size_t length() const { return data_len; }
    size_t size() const { return data_len; }
    bool empty() const { return data_len == 0; }
    // Bytes allocated for the UTF-8 text and units for the UTF-16 copy, both
    // counting the terminator.
    size_t capacity() const { return data_cap; }
    size_t wcapacity() const { return wdata_cap; }
    const char &operator[](size_t pos) const { return data[pos]; }
    // A byte written through the reference cannot be seen, so handing one out
    // drops the UTF-16 copy first. Writing a NUL is not supported.
    char &operator[](size_t pos);

    // Assignment. Counts are in bytes for UTF-8 and in units for UTF-16; all
    // of them stop early at a NUL. A position past the end selects nothing.
    ustring &assign(const char *s);
    ustring &assign(const char *s, size_t n);
    ustring &assign(const std::string &s, size_t pos = 0, size_t n = npos);
    ustring &assign(const ustring &s, size_t pos = 0, size_t n = npos);
    ustring &assign(const uchar16_t *ws);
    ustring &assign(const uchar16_t *ws, size_t n);
    ustring &assign(size_t n, char c);
    ustring &assign(size_t n, uchar16_t wc);

    ustring &operator=(const ustring &other) { return assign(other); }
    ustring &operator=(const char *s) { return assign(s); }
    ustring &operator=(const std::string &s) { return assign(s); }
    ustring &operator=(const uchar16_t *ws) { return assign(ws); }
    ustring &operator=(char c) { return assign(1, c); }
    ustring &operator=(uchar16_t wc) { return assign(1, wc); }

    ustring &append(const char *s);
    ustring &append(const char *s, size_t n);
    ustring &append(const std::string &s, size_t pos = 0, size_t n = npos);
    ustring &append(const ustring &s, size_t pos = 0, size_t n = npos);
    ustring &append(const uchar16_t *ws);
    ustring &append(const uchar16_t *ws, size_t n);
    ustring &append(size_t n, char c);
    ustring &append(size_t n, uchar16_t wc);

    ustring &operator+=(const ustring &s) { return append(s); }
    ustring &operator+=(const char *s) { return append(s); }
    ustring &operator+=(const std::string &s) { return append(s); }
    ustring &operator+=(const uchar16_t *ws) { return append(ws); }
    ustring &operator+=(char c) { return append(1, c); }
    ustring &operator+=(uchar16_t wc) { return append(1, wc); }

    void clear();
    // Every byte equal to `from` becomes `to`. A NUL `to` cuts the text at the
    // first `from`, since the text cannot hold a NUL.
    ustring &replace(char from, char to);

    // Drop leading / trailing bytes that occur in `set`.
    ustring &ltrim(const char *set);
    ustring &ltrim(const ustring &set) { return ltrim(set.c_str()); }
    ustring &rtrim(const char *set);
    ustring &rtrim(const ustring &set) { return rtrim(set.c_str()); }
    ustring &trim(const char *set);
    ustring &trim(const ustring &set) { return trim(set.c_str()); }

    // Searching: byte positions, npos when not found.
    size_t find(const char *s, size_t pos = 0) const;
    size_t find(char c, size_t pos = 0) const;
    size_t find(const ustring &s, size_t pos = 0) const;
    size_t find(const std::string &s, size_t pos = 0) const;
    size_t rfind(const char *s, size_t pos = npos) const;
    size_t rfind(char c, size_t pos = npos) const;
    size_t rfind(const ustring &s, size_t pos = npos) const;
    size_t rfind(const std::string &s, size_t pos = npos) const;
    size_t find_first_of(const char *s, size_t pos = 0) const;
    size_t find_first_of(char c, size_t pos = 0) const;
    size_t find_first_of(const ustring &s, size_t pos = 0) const;
    size_t find_first_of(const std::string &s, size_t pos = 0) const;
    size_t find_first_not_of(const char *s, size_t pos = 0) const;
    size_t find_first_not_of(char c, size_t pos = 0) const;
    size_t find_first_not_of(const ustring &s, size_t pos = 0) const;
    size_t find_first_not_of(const std::string &s, size_t pos = 0) const;
    size_t find_last_of(const char *s, size_t pos = npos) const;
    size_t find_last_of(char c, size_t pos = npos) const;
    size_t find_last_of(const ustring &s, size_t pos = npos) const;
    size_t find_last_of(const std::string &s, size_t pos = npos) const;
    size_t find_last_not_of(const char *s, size_t pos = npos) const;
    size_t find_last_not_of(char c, size_t pos = npos) const;
    size_t find_last_not_of(const ustring &s, size_t pos = npos) const;
    size_t find_last_not_of(const std::string &s, size_t pos = npos) const;

    ustring substr(size_t pos = 0, size_t n = npos) const;

    // Byte-wise comparison; the result is the difference of the first
    // differing bytes taken as unsigned values, 0 when equal.
    int compare(const ustring &other) const;
    // At most the first n bytes.
    int compare(const ustring &other, size_t n) const;
    // ignore_case folds only ASCII A-Z to a-z; other bytes compare as they are.
    static int compare(const char *a, const char *b, bool ignore_case);
    static int compare(const ustring &a, const ustring &b, bool ignore_case) {
        return compare(a.c_str(), b.c_str(), ignore_case);
    }

    // Unicode normalisation through ICU; the result is a new string.
    ustring normalize(normalization_form form) const;
    static ustring normalize(const ustring &text, normalization_form form);

    // Whether the text is well-formed UTF-8; an empty text is.
    static bool is_valid(const char *text);
    static bool is_valid(const ustring &text);

private:
    void realloc_data(size_t n);
    void realloc_wdata(size_t n) const;
    void drop_utf16() const;
    void make_utf16() const;
    void rebuild_utf8();
    void set_length(size_t n);
    ustring &append_bytes(const char *s, size_t n);
    ustring &append_utf16(const uchar16_t *ws, size_t n);
    ustring &assign_utf16(const uchar16_t *ws, size_t n);
    bool owns(const char *p) const;

    char *data;
    size_t data_len;
    size_t data_cap;
    // The UTF-16 copy is a cache of the UTF-8 text, so const readers may fill it.
    mutable uchar16_t *wdata;
    mutable size_t wdata_len;
    mutable size_t wdata_cap;
};

void swap(ustring &a, ustring &b) noexcept;

bool operator==(const ustring &a, const ustring &b);
bool operator!=(const ustring &a, const ustring &b);
bool operator<(const ustring &a, const ustring &b);
bool operator>(const ustring &a, const ustring &b);
bool operator<=(const ustring &a, const ustring &b);
bool operator>=(const ustring &a, const ustring &b);

ustring operator+(const ustring &a, const ustring &b);
ustring operator+(const ustring &a, const char *b);
ustring operator+(const char *a, const ustring &b);
ustring operator+(const ustring &a, char b);
ustring operator+(char a, const ustring &b);
ustring operator+(const ustring &a, const uchar16_t *b);
ustring operator+(const uchar16_t *a, const ustring &b);
ustring operator+(const ustring &a, uchar16_t b);
ustring operator+(uchar16_t a, const ustring &b);

// Output writes the UTF-8 text; input reads one whitespace-delimited word.
std::ostream &operator<<(std::ostream &out, const ustring &s);
std::istream &operator>>(std::istream &in, ustring &s);

#endif
