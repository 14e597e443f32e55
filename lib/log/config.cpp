#include "config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>

bool Config::is_key_char(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '.' || c == '_';
}

// Control characters and DEL end a value; bytes of 128 and above are ordinary.
bool Config::is_value_char(unsigned char c) { return c >= 32 && c != 127; }

bool Config::is_space(unsigned char c) { return c == ' ' || (c >= 9 && c <= 13); }

static const char *skip_spaces(const char *p) {
    while (*p && Config::is_space(static_cast<unsigned char>(*p)))
        ++p;
    return p;
}

int Config::parse(const char *line, std::string &key, std::string &value) const {
    const char *p = skip_spaces(line);

    const char *key_begin = p;
    while (*p && is_key_char(static_cast<unsigned char>(*p)))
        ++p;
    const char *key_end = p;

    // The line terminator is not stripped, so "key\n" is not "the line ends":
    // it goes on to the '=' test below and fails there.
    if (*p == '\0' || *p == '#')
        return 0;

    p = skip_spaces(p);
    if (*p != '=')
        return -1;
    p = skip_spaces(p + 1);
    if (*p == '\0')
        return -1;

    const char *value_begin = p;
    const char *value_end;
    if (*p == '"' || *p == '\'') {
        const char quote = *p++;
        while (*p && *p != quote && is_value_char(static_cast<unsigned char>(*p)))
            ++p;
        if (*p != quote)
            return -1;
        ++p;
        value_end = p;
        if (!preserve) {
            ++value_begin;
            --value_end;
        }
    } else {
        while (*p && *p != ' ' && is_value_char(static_cast<unsigned char>(*p)))
            ++p;
        value_end = p;
    }

    p = skip_spaces(p);
    if (*p != '\0' && *p != '#')
        return -1;

    key.assign(key_begin, key_end);
    value.assign(value_begin, value_end);
    return 1;
}

int Config::read(const std::string &path) {
    if (path.empty())
        return -1;
    std::unique_ptr<FILE, int (*)(FILE *)> fp(std::fopen(path.c_str(), "r"), std::fclose);
    if (!fp)
        return -1;

    char line[MAX_LINE];
    std::string key, value;
    while (std::fgets(line, sizeof(line), fp.get())) {
        int rc = parse(line, key, value);
        if (rc < 0) {
            store.clear();
            return -1;
        }
        if (rc > 0)
            store[key] = value;
    }
    return 0;
}

int Config::write(const std::string &path) const {
    std::unique_ptr<FILE, int (*)(FILE *)> fp(std::fopen(path.c_str(), "w"), std::fclose);
    if (!fp)
        return -1;
    for (const auto &kv : store) {
        const std::string &v = kv.second;
        bool quoted = !v.empty() && (v.front() == '"' || v.front() == '\'');
        bool needs_quotes = !quoted && (v.empty() || v.find_first_of(" #'\"") != std::string::npos);
        if (needs_quotes && std::fprintf(fp.get(), "%s=\"%s\"\n", kv.first.c_str(), v.c_str()) < 0)
            return -1;
        if (!needs_quotes && std::fprintf(fp.get(), "%s=%s\n", kv.first.c_str(), v.c_str()) < 0)
            return -1;
    }
    return std::fflush(fp.get()) == 0 ? 0 : -1;
}

int Config::get_int(const std::string &key, int def) const {
    auto it = store.find(key);
    if (it == store.end())
        return def;
    char *end = nullptr;
    long v = std::strtol(it->second.c_str(), &end, 10);
    return end == it->second.c_str() ? def : static_cast<int>(v);
}

bool Config::get_bool(const std::string &key, bool def) const {
    auto it = store.find(key);
    if (it == store.end())
        return def;
    const char *v = it->second.c_str();
    return strcasecmp(v, "1") == 0 || strcasecmp(v, "true") == 0 || strcasecmp(v, "yes") == 0 ||
           strcasecmp(v, "on") == 0;
}
