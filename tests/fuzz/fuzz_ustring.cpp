// ustring on any bytes: valid UTF-8 survives UTF-16, and normalising copes.
#include "ustring/ustring.h"

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    const ustring s(std::string(reinterpret_cast<const char *>(data), size));
    if (ustring::is_valid(s) && ustring(s.c_str_utf16()) != s)
        std::abort();
    s.normalize(ustring::NFD).normalize(ustring::NFC);
    return 0;
}
