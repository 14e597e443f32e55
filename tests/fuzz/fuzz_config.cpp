// The template reader on any file: a file it rejects leaves nothing behind.
#include "log/config.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    static const std::string path = "/tmp/fuzz_config." + std::to_string(getpid());
    FILE *f = std::fopen(path.c_str(), "wb");
    Config config;
    if (!f || std::fwrite(data, 1, size, f) != size || std::fclose(f) != 0 ||
        (config.read(path) != 0 && config.size() != 0))
        std::abort();
    return 0;
}
