#include "ustring.h"

#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <limits>
#include <new>
#include <ostream>
#include <string_view>
#include <type_traits>
#include <utility>

static_assert(std::is_same<UChar, uchar16_t>::value,
              "ICU's UChar must be the same type as uchar16_t");

// Encoding problems are not errors for the caller; they leave a representation
// empty and say so on standard error. The line number only tells the call
// sites apart.
#define USTRING_WARN(function, code)                                                               \
    std::fprintf(stderr, "Warning: " function ": error code %d at line %d\n",                      \
                 static_cast<int>(code), __LINE__)

namespace {

const size_t INITIAL_CAPACITY = 4;

// Maps ASCII A-Z to a-z and every other byte to itself. A table rather than
// tolower() so that the locale never folds bytes of multi-byte characters.
// Built at compile time, so that it is ready even for comparisons made while
// other static objects are constructed.
struct AsciiFoldTable {
    unsigned char map[256] = {};
    constexpr AsciiFoldTable() {
        for (int i = 0; i < 256; ++i)
            map[i] = static_cast<unsigned char>((i >= 'A' && i <= 'Z') ? i - 'A' + 'a' : i);
    }
};
constexpr AsciiFoldTable ascii_fold;

size_t utf16_length(const uchar16_t *ws, size_t max) {
    size_t n = 0;
    while (n < max && ws[n] != 0)
        ++n;
    return n;
}

// old + added + 1 without wrapping; a size that cannot be represented can
// never be allocated either.
size_t grown_size(size_t old_len, size_t added) {
    if (added > std::numeric_limits<size_t>::max() - 1 - old_len)
        throw std::bad_alloc();
    return old_len + added + 1;
}

// ICU counts in int32_t; a longer UTF-16 text could not be converted at all.
void check_icu_length(size_t units) {
    if (units > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
        throw std::bad_alloc();
}

bool points_into(const void *p, const void *begin, size_t bytes) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(p);
    const uintptr_t b = reinterpret_cast<uintptr_t>(begin);
    return a >= b && a - b < bytes;
}

} // namespace

ustring::ustring()
    : data(nullptr), data_len(0), data_cap(0), wdata(nullptr), wdata_len(0), wdata_cap(0) {
    data = static_cast<char *>(std::malloc(INITIAL_CAPACITY));
    if (!data)
        throw std::bad_alloc();
    wdata = static_cast<uchar16_t *>(std::malloc(INITIAL_CAPACITY * sizeof(uchar16_t)));
    if (!wdata) {
        std::free(data);
        throw std::bad_alloc();
    }
    data[0] = 0;
    data_cap = INITIAL_CAPACITY;
    wdata[0] = 0;
    wdata_cap = INITIAL_CAPACITY;
}

ustring::ustring(const char *s) : ustring() {
    append(s);
}

ustring::ustring(const std::string &s) : ustring() {
    append(s);
}

ustring::ustring(char c) : ustring() {
    append(1, c);
}

ustring::ustring(const uchar16_t *ws) : ustring() {
    assign(ws);
}

ustring::ustring(const ustring &other) : ustring() {
    append(other);
}

ustring::~ustring() {
    std::free(data);
    std::free(wdata);
}

void ustring::swap(ustring &other) noexcept {
    std::swap(data, other.data);
    std::swap(data_len, other.data_len);
    std::swap(data_cap, other.data_cap);
    std::swap(wdata, other.wdata);
    std::swap(wdata_len, other.wdata_len);
    std::swap(wdata_cap, other.wdata_cap);
}

void swap(ustring &a, ustring &b) noexcept {
    a.swap(b);
}

// Exact growth keeps memory tight for the many short paths this type carries;
// giving memory back only below half the capacity keeps a string that
// shrinks a little from reallocating every time.
void ustring::realloc_data(size_t n) {
    if (n > data_cap || n < data_cap - n) {
        char *p = static_cast<char *>(std::realloc(data, n));
        if (!p)
            throw std::bad_alloc();
        data = p;
        data_cap = n;
    }
}

void ustring::realloc_wdata(size_t n) const {
    if (n > std::numeric_limits<size_t>::max() / sizeof(uchar16_t))
        throw std::bad_alloc();
    if (n > wdata_cap || n < wdata_cap - n) {
        uchar16_t *p = static_cast<uchar16_t *>(std::realloc(wdata, n * sizeof(uchar16_t)));
        if (!p)
            throw std::bad_alloc();
        wdata = p;
        wdata_cap = n;
    }
}

void ustring::drop_utf16() const {
    wdata_len = 0;
    wdata[0] = 0;
}

// Cuts the text to n bytes (n <= data_len) and sizes the buffer for it.
void ustring::set_length(size_t n) {
    data[n] = 0;
    data_len = n;
    drop_utf16();
    // Shrinking cannot lose text, and a failure to shrink would throw with
    // the new, shorter text already in place, so it is simply not attempted
    // when realloc refuses.
    try {
        realloc_data(n + 1);
    } catch (const std::bad_alloc &) {
    }
}

const uchar16_t *ustring::c_str_utf16() const {
    if (wdata_len == 0)
        make_utf16();
    return wdata;
}

void ustring::make_utf16() const {
    UErrorCode err = U_ZERO_ERROR;
    int32_t needed = 0;
    u_strFromUTF8(nullptr, 0, &needed, data, -1, &err);
    if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) {
        USTRING_WARN("u_strFromUTF8", err);
        drop_utf16();
        return;
    }
    realloc_wdata(static_cast<size_t>(needed) + 1);
    err = U_ZERO_ERROR;
    u_strFromUTF8(wdata, needed + 1, nullptr, data, -1, &err);
    if (U_FAILURE(err)) {
        USTRING_WARN("u_strFromUTF8", err);
        drop_utf16();
        return;
    }
    wdata[needed] = 0;
    wdata_len = static_cast<size_t>(needed);
}

// Makes the UTF-8 text from the wdata_len units in wdata, which stay valid as
// the cache of the result. Text that ICU cannot convert (a lone surrogate)
// leaves the whole string empty.
void ustring::rebuild_utf8() {
    if (wdata_len == 0) {
        set_length(0);
        return;
    }
    UErrorCode err = U_ZERO_ERROR;
    int32_t needed = 0;
    u_strToUTF8(nullptr, 0, &needed, wdata, static_cast<int32_t>(wdata_len), &err);
    if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) {
        USTRING_WARN("u_strToUTF8", err);
        set_length(0);
        return;
    }
    try {
        realloc_data(static_cast<size_t>(needed) + 1);
    } catch (const std::bad_alloc &) {
        // The UTF-8 text is still the old one; the cache must not claim otherwise.
        drop_utf16();
        throw;
    }
    err = U_ZERO_ERROR;
    u_strToUTF8(data, needed + 1, nullptr, wdata, static_cast<int32_t>(wdata_len), &err);
    if (U_FAILURE(err)) {
        USTRING_WARN("u_strToUTF8", err);
        set_length(0);
        return;
    }
    data[needed] = 0;
    data_len = static_cast<size_t>(needed);
}

bool ustring::owns(const char *p) const {
    return points_into(p, data, data_cap);
}

char &ustring::operator[](size_t pos) {
    drop_utf16();
    return data[pos];
}

ustring &ustring::assign(const char *s) {
    if (s == data)
        return *this;
    return assign(s, npos);
}

ustring &ustring::assign(const char *s, size_t n) {
    if (owns(s)) {
        // Part of our own text: move it to the front; nothing is allocated.
        const size_t len = strnlen(s, n);
        std::memmove(data, s, len);
        set_length(len);
        return *this;
    }
    const size_t len = strnlen(s, n);
    // Size first so that a failed allocation leaves the old text in place.
    realloc_data(grown_size(0, len));
    std::memcpy(data, s, len);
    data[len] = 0;
    data_len = len;
    drop_utf16();
    return *this;
}

ustring &ustring::assign(const std::string &s, size_t pos, size_t n) {
    if (pos >= s.size())
        return assign("", 0);
    return assign(s.data() + pos, std::min(n, s.size() - pos));
}

ustring &ustring::assign(const ustring &s, size_t pos, size_t n) {
    if (pos >= s.data_len)
        return assign("", 0);
    return assign(s.data + pos, std::min(n, s.data_len - pos));
}

ustring &ustring::assign(const uchar16_t *ws) {
    return assign(ws, npos);
}

ustring &ustring::assign(const uchar16_t *ws, size_t n) {
    return assign_utf16(ws, utf16_length(ws, n));
}

ustring &ustring::assign_utf16(const uchar16_t *ws, size_t n) {
    check_icu_length(n);
    if (ws == wdata && n == wdata_len && n > 0)
        return *this; // our own UTF-16 copy: the text is already this
    if (points_into(ws, wdata, wdata_cap * sizeof(uchar16_t))) {
        std::memmove(wdata, ws, n * sizeof(uchar16_t));
    } else {
        drop_utf16();
        realloc_wdata(grown_size(0, n));
        std::memcpy(wdata, ws, n * sizeof(uchar16_t));
    }
    wdata[n] = 0;
    wdata_len = n;
    rebuild_utf8();
    return *this;
}

ustring &ustring::assign(size_t n, char c) {
    if (c == 0)
        n = 0;
    realloc_data(grown_size(0, n));
    std::memset(data, c, n);
    data[n] = 0;
    data_len = n;
    drop_utf16();
    return *this;
}

ustring &ustring::assign(size_t n, uchar16_t wc) {
    if (wc == 0)
        n = 0;
    check_icu_length(n);
    drop_utf16();
    realloc_wdata(grown_size(0, n));
    for (size_t i = 0; i < n; ++i)
        wdata[i] = wc;
    wdata[n] = 0;
    wdata_len = n;
    rebuild_utf8();
    return *this;
}

ustring &ustring::append(const char *s) {
    return append(s, npos);
}

ustring &ustring::append(const char *s, size_t n) {
    return append_bytes(s, strnlen(s, n));
}

ustring &ustring::append(const std::string &s, size_t pos, size_t n) {
    if (pos >= s.size())
        return *this;
    const size_t count = std::min(n, s.size() - pos);
    return append_bytes(s.data() + pos, strnlen(s.data() + pos, count));
}

ustring &ustring::append(const ustring &s, size_t pos, size_t n) {
    if (pos >= s.data_len)
        return *this;
    return append_bytes(s.data + pos, std::min(n, s.data_len - pos));
}

// n bytes without a NUL among them. They may lie in our own buffer (appending
// the string to itself), which realloc can move, so they are found again by
// offset afterwards.
ustring &ustring::append_bytes(const char *s, size_t n) {
    if (n == 0)
        return *this;
    const bool own = owns(s);
    const size_t offset = own ? static_cast<size_t>(s - data) : 0;
    realloc_data(grown_size(data_len, n));
    if (own)
        s = data + offset;
    std::memmove(data + data_len, s, n);
    data_len += n;
    data[data_len] = 0;
    drop_utf16();
    return *this;
}

ustring &ustring::append(const uchar16_t *ws) {
    return append(ws, npos);
}

ustring &ustring::append(const uchar16_t *ws, size_t n) {
    return append_utf16(ws, utf16_length(ws, n));
}

ustring &ustring::append(size_t n, char c) {
    if (c == 0 || n == 0)
        return *this;
    realloc_data(grown_size(data_len, n));
    std::memset(data + data_len, c, n);
    data_len += n;
    data[data_len] = 0;
    drop_utf16();
    return *this;
}

ustring &ustring::append(size_t n, uchar16_t wc) {
    if (wc == 0 || n == 0)
        return *this;
    check_icu_length(n);
    const std::u16string units(n, wc);
    return append_utf16(units.data(), n);
}

// The added units are converted on their own and appended as UTF-8, rather
// than going through the UTF-16 copy of the whole text: the UTF-8 text is the
// value, and a malformed byte in it would have no UTF-16 copy to extend.
ustring &ustring::append_utf16(const uchar16_t *ws, size_t n) {
    if (n == 0)
        return *this;
    check_icu_length(n);
    UErrorCode err = U_ZERO_ERROR;
    int32_t needed = 0;
    u_strToUTF8(nullptr, 0, &needed, ws, static_cast<int32_t>(n), &err);
    if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) {
        USTRING_WARN("u_strToUTF8", err);
        set_length(0);
        return *this;
    }
    // ws may be our own UTF-16 copy; it is not touched until the conversion.
    realloc_data(grown_size(data_len, static_cast<size_t>(needed)));
    err = U_ZERO_ERROR;
    u_strToUTF8(data + data_len, needed + 1, nullptr, ws, static_cast<int32_t>(n), &err);
    if (U_FAILURE(err)) {
        USTRING_WARN("u_strToUTF8", err);
        set_length(0);
        return *this;
    }
    data_len += static_cast<size_t>(needed);
    data[data_len] = 0;
    drop_utf16();
    return *this;
}

void ustring::clear() {
    set_length(0);
}

ustring &ustring::replace(char from, char to) {
    if (from == 0 || from == to)
        return *this;
    char *hit = static_cast<char *>(std::memchr(data, from, data_len));
    if (!hit)
        return *this;
    if (to == 0) {
        set_length(static_cast<size_t>(hit - data));
        return *this;
    }
    for (; hit < data + data_len; ++hit) {
        if (*hit == from)
            *hit = to;
    }
    drop_utf16();
    return *this;
}

ustring &ustring::ltrim(const char *set) {
    if (!set || !*set)
        return *this;
    const size_t first = std::string_view(data, data_len).find_first_not_of(set);
    if (first == 0)
        return *this;
    if (first == std::string_view::npos) {
        set_length(0);
        return *this;
    }
    std::memmove(data, data + first, data_len - first);
    set_length(data_len - first);
    return *this;
}

ustring &ustring::rtrim(const char *set) {
    if (!set || !*set)
        return *this;
    const size_t last = std::string_view(data, data_len).find_last_not_of(set);
    const size_t keep = (last == std::string_view::npos) ? 0 : last + 1;
    if (keep != data_len)
        set_length(keep);
    return *this;
}

ustring &ustring::trim(const char *set) {
    rtrim(set);
    return ltrim(set);
}

// Searches follow std::string's rules on the UTF-8 bytes; std::string_view's
// npos is the same all-bits-set value as ours.
#define USTRING_SEARCH(name)                                                                       \
    size_t ustring::name(const char *s, size_t pos) const {                                        \
        return std::string_view(data, data_len).name(std::string_view(s), pos);                    \
    }                                                                                              \
    size_t ustring::name(char c, size_t pos) const {                                               \
        return std::string_view(data, data_len).name(c, pos);                                      \
    }                                                                                              \
    size_t ustring::name(const ustring &s, size_t pos) const {                                     \
        return std::string_view(data, data_len).name(std::string_view(s.data, s.data_len), pos);   \
    }                                                                                              \
    size_t ustring::name(const std::string &s, size_t pos) const {                                 \
        return std::string_view(data, data_len).name(std::string_view(s), pos);                    \
    }

USTRING_SEARCH(find)
USTRING_SEARCH(rfind)
USTRING_SEARCH(find_first_of)
USTRING_SEARCH(find_first_not_of)
USTRING_SEARCH(find_last_of)
USTRING_SEARCH(find_last_not_of)

#undef USTRING_SEARCH

ustring ustring::substr(size_t pos, size_t n) const {
    ustring result;
    result.assign(*this, pos, n);
    return result;
}

int ustring::compare(const ustring &other) const {
    return compare(data, other.data, false);
}

int ustring::compare(const ustring &other, size_t n) const {
    const unsigned char *a = reinterpret_cast<const unsigned char *>(data);
    const unsigned char *b = reinterpret_cast<const unsigned char *>(other.data);
    for (size_t i = 0; i < n; ++i) {
        if (a[i] != b[i] || a[i] == 0)
            return a[i] - b[i];
    }
    return 0;
}

int ustring::compare(const char *a, const char *b, bool ignore_case) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(a);
    const unsigned char *q = reinterpret_cast<const unsigned char *>(b);
    if (ignore_case) {
        while (*p && ascii_fold.map[*p] == ascii_fold.map[*q]) {
            ++p;
            ++q;
        }
        return ascii_fold.map[*p] - ascii_fold.map[*q];
    }
    while (*p && *p == *q) {
        ++p;
        ++q;
    }
    return *p - *q;
}

ustring ustring::normalize(normalization_form form) const {
    return normalize(*this, form);
}

ustring ustring::normalize(const ustring &text, normalization_form form) {
    ustring result;
    if (text.empty())
        return result;

    UErrorCode err = U_ZERO_ERROR;
    const UNormalizer2 *normalizer =
        unorm2_getInstance(nullptr, "nfc", form == NFD ? UNORM2_DECOMPOSE : UNORM2_COMPOSE, &err);
    if (U_FAILURE(err) || !normalizer) {
        USTRING_WARN("unorm2_getInstance", err);
        return result;
    }

    const uchar16_t *src = text.c_str_utf16();
    const int32_t src_len = static_cast<int32_t>(text.wdata_len);
    err = U_ZERO_ERROR;
    const int32_t needed = unorm2_normalize(normalizer, src, src_len, nullptr, 0, &err);
    if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) {
        USTRING_WARN("unorm2_normalize", err);
        result.clear();
        return result;
    }
    result.realloc_wdata(static_cast<size_t>(needed) + 1);
    err = U_ZERO_ERROR;
    unorm2_normalize(normalizer, src, src_len, result.wdata, needed + 1, &err);
    if (U_FAILURE(err)) {
        USTRING_WARN("unorm2_normalize", err);
        result.clear();
        return result;
    }
    result.wdata[needed] = 0;
    result.wdata_len = static_cast<size_t>(needed);
    result.rebuild_utf8();
    return result;
}

// Well-formed exactly when ICU would convert it: the UTF-16 copy of a valid
// text is never missing.
bool ustring::is_valid(const char *text) {
    if (!text || !*text)
        return true;
    UErrorCode err = U_ZERO_ERROR;
    int32_t needed = 0;
    u_strFromUTF8(nullptr, 0, &needed, text, -1, &err);
    return err == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(err);
}

bool ustring::is_valid(const ustring &text) {
    return is_valid(text.c_str());
}

bool operator==(const ustring &a, const ustring &b) {
    return a.length() == b.length() && std::memcmp(a.c_str(), b.c_str(), a.length()) == 0;
}
bool operator!=(const ustring &a, const ustring &b) {
    return !(a == b);
}
bool operator<(const ustring &a, const ustring &b) {
    return a.compare(b) < 0;
}
bool operator>(const ustring &a, const ustring &b) {
    return a.compare(b) > 0;
}
bool operator<=(const ustring &a, const ustring &b) {
    return a.compare(b) <= 0;
}
bool operator>=(const ustring &a, const ustring &b) {
    return a.compare(b) >= 0;
}

// Each builds its result in a named local so that it is returned without a copy.
ustring operator+(const ustring &a, const ustring &b) {
    ustring r(a);
    r.append(b);
    return r;
}
ustring operator+(const ustring &a, const char *b) {
    ustring r(a);
    r.append(b);
    return r;
}
ustring operator+(const char *a, const ustring &b) {
    ustring r(a);
    r.append(b);
    return r;
}
ustring operator+(const ustring &a, char b) {
    ustring r(a);
    r.append(1, b);
    return r;
}
ustring operator+(char a, const ustring &b) {
    ustring r(a);
    r.append(b);
    return r;
}
ustring operator+(const ustring &a, const uchar16_t *b) {
    ustring r(a);
    r.append(b);
    return r;
}
ustring operator+(const uchar16_t *a, const ustring &b) {
    ustring r(a);
    r.append(b);
    return r;
}
ustring operator+(const ustring &a, uchar16_t b) {
    ustring r(a);
    r.append(1, b);
    return r;
}
ustring operator+(uchar16_t a, const ustring &b) {
    ustring r;
    r.assign(1, a);
    r.append(b);
    return r;
}

std::ostream &operator<<(std::ostream &out, const ustring &s) {
    return out.write(s.c_str(), static_cast<std::streamsize>(s.length()));
}

std::istream &operator>>(std::istream &in, ustring &s) {
    std::string word;
    if (in >> word)
        s.assign(word);
    return in;
}
