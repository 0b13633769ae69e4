#include "ap_msg/shown.h"

#include "base/errno_keeper.h"

#include <cstring>

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr size_t kEscapedSize = 4; // \xNN

struct Form {
    uint8_t first_lead; // of the characters of this size
    uint8_t last_lead;
    uint8_t least_second; // the byte behind the lead, at least
    size_t size;
};
// From the last bytes of the short forms on, so that no character is shown that has a shorter form,
// nor any of the control characters from 80 to 9F, which are C2 80 to C2 9F.
constexpr Form kForms[] = {
    {0x20, 0x7E, 0x00, 1}, {0xC2, 0xC2, 0xA0, 2}, {0xC3, 0xDF, 0x80, 2}, {0xE0, 0xE0, 0xA0, 3},
    {0xE1, 0xEF, 0x80, 3}, {0xF0, 0xF0, 0x90, 4}, {0xF1, 0xF4, 0x80, 4},
};

uint8_t byte_at(std::string_view text, size_t at) {
    return static_cast<uint8_t>(text[at]);
}

bool has_form(std::string_view text, const Form &form) {
    if (text.size() < form.size || byte_at(text, 0) < form.first_lead ||
        byte_at(text, 0) > form.last_lead) {
        return false;
    }
    constexpr uint8_t kTopBits = 0xC0;
    constexpr uint8_t kContinuation = 0x80;
    for (size_t i = 1; i < form.size; i++) {
        if ((byte_at(text, i) & kTopBits) != kContinuation) {
            return false;
        }
    }
    return form.size == 1 || byte_at(text, 1) >= form.least_second;
}

// Bytes of the character that a text begins with; 0: a byte that is not to be shown as it is.
size_t character_size(std::string_view text) {
    for (const Form &form : kForms) {
        if (has_form(text, form)) {
            return form.size;
        }
    }
    return 0;
}

HeapBytes room_for(std::string_view text) {
    const ErrnoKeeper keep_errno; // the line may tell its reason
    return heap_bytes(bytes_of(text.size(), kEscapedSize) + 1);
}

uint8_t *escape(uint8_t *to, uint8_t byte) {
    constexpr unsigned kDigitBits = 4;
    constexpr unsigned kDigit = 0xF;
    const char escaped[kEscapedSize] = {'\\', 'x', kHexDigits[byte >> kDigitBits],
                                        kHexDigits[byte & kDigit]};
    memcpy(to, escaped, sizeof escaped);
    return to + sizeof escaped;
}

} // namespace

Shown::Shown(std::string_view text) : copy_(room_for(text)) {
    uint8_t *to = copy_.get();
    while (to != nullptr && !text.empty()) {
        const size_t size = character_size(text);
        if (size == 0) {
            to = escape(to, byte_at(text, 0));
        } else {
            memcpy(to, text.data(), size);
            to += size;
        }
        text.remove_prefix(size == 0 ? 1 : size);
    }
}

const char *Shown::text() const {
    return copy_ != nullptr ? reinterpret_cast<const char *>(copy_.get())
                            : "(no memory to show it)";
}
