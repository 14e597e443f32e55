// The log template reader on arbitrary file contents: it must never crash, and
// it either accepts the file with every pair well-formed or keeps nothing.

#include "log/config.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

static std::string templatePath() {
    static const std::string path = "/tmp/fuzz_config." + std::to_string(getpid());
    return path;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *f = std::fopen(templatePath().c_str(), "wb");
    if (!f)
        return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);

    Config config;
    const int rc = config.read(templatePath());
    if (rc != 0 && config.size() != 0)
        std::abort(); // a rejected file must leave nothing behind
    for (const auto &kv : config) {
        for (unsigned char c : kv.first)
            if (!Config::is_key_char(c))
                std::abort();
        for (unsigned char c : kv.second)
            if (!Config::is_value_char(c))
                std::abort();
    }
    return 0;
}
