// The Unicode string's conversions and normalisation on arbitrary bytes.

#include "ustring/ustring.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The type holds NUL-terminated text: take the bytes up to the first NUL.
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    const std::string text(bytes.c_str());

    ustring s(text.c_str());
    if (s.length() != text.size() || std::strcmp(s.c_str(), text.c_str()) != 0)
        std::abort();

    const uchar16_t *wide = s.c_str_utf16();
    if (ustring::is_valid(text.c_str())) {
        // Valid UTF-8 survives the trip through UTF-16 unchanged.
        ustring back(wide);
        if (std::strcmp(back.c_str(), text.c_str()) != 0)
            std::abort();
        // Normalising is idempotent and the two forms agree on equivalence.
        const ustring nfc = s.normalize(ustring::NFC);
        const ustring nfd = s.normalize(ustring::NFD);
        if (!text.empty() && (nfc.empty() || nfd.empty()))
            std::abort();
        if (nfc.normalize(ustring::NFC) != nfc || nfd.normalize(ustring::NFC) != nfc)
            std::abort();
    } else if (wide[0] != 0) {
        std::abort(); // malformed text has no UTF-16 copy
    }

    // Editing keeps the invariants: terminated, length in step.
    ustring copy(s);
    copy.append(copy);
    copy.trim(" \t");
    copy.replace('a', 'b');
    if (std::strlen(copy.c_str()) != copy.length())
        std::abort();
    return 0;
}
