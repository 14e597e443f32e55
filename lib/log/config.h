#ifndef QUILLON_LIB_LOG_CONFIG_H
#define QUILLON_LIB_LOG_CONFIG_H

#include <map>
#include <string>

// Reader and writer of the small "key = value" template files that set, among
// other things, the log level of each component.
//
// A line is: optional blanks, a key made of letters, digits, '-', '.' and '_',
// optional blanks, '=', optional blanks, a value (bare up to the first blank, or
// quoted with ' or "), optional blanks and an optional '#' comment. A line that
// ends right after its key, or continues with '#', is a comment. Any other shape
// makes the whole file invalid: read() then clears everything it had read.
class Config {
public:
    typedef std::map<std::string, std::string> Store;
    typedef Store::const_iterator const_iterator;

    static const int MAX_LINE = 8192;

    Config() = default;

    // Returns 0 on success, -1 when the file cannot be opened or is malformed
    // (in which case the store is left empty).
    int read(const std::string &path);
    // Writes every pair as one "key=value" line. Returns 0 or -1.
    int write(const std::string &path) const;

    std::string &operator[](const std::string &key) { return store[key]; }
    // Value as a number; the default when the key is missing or not numeric.
    int get_int(const std::string &key, int def = 0) const;
    // "1", "true", "yes" and "on" (any case) are true; other values are false.
    bool get_bool(const std::string &key, bool def = false) const;
    void unset(const std::string &key) { store.erase(key); }
    void clear() { store.clear(); }
    size_t size() const { return store.size(); }

    const_iterator begin() const { return store.begin(); }
    const_iterator end() const { return store.end(); }

    // Keep the quotes of quoted values in the stored text.
    void set_preserve(bool value) { preserve = value; }

    static bool is_key_char(unsigned char c);
    static bool is_value_char(unsigned char c);
    static bool is_space(unsigned char c);

    // Parses one line. Returns 1 when it held a pair (key and value are set),
    // 0 for a comment or blank line, -1 for a malformed line.
    int parse(const char *line, std::string &key, std::string &value) const;

private:
    Store store;
    bool preserve = false;
};

#endif
