// slot.cpp - the card's slot, taken from the environment.
#include "board/board.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace {

constexpr int kDefaultSlot = 0;
constexpr unsigned long kLargestSlot = 255;

std::atomic<bool> g_complained{false};

std::optional<int> parse_slot(const char *text) {
    const bool is_hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *digits = is_hex ? text + 2 : text;
    // strtoul would also take blanks, a sign and a second "0x"
    const char *allowed = is_hex ? "0123456789abcdefABCDEF" : "0123456789";
    const size_t count = std::strspn(digits, allowed);
    if (count == 0 || digits[count] != '\0') {
        return std::nullopt;
    }
    const unsigned long slot = std::strtoul(digits, nullptr, is_hex ? 16 : 10);
    return slot <= kLargestSlot ? std::optional<int>(static_cast<int>(slot)) : std::nullopt;
}

} // namespace

int apcard_bit_self(void) {
    const char *text = std::getenv("APCARD_SLOT");
    if (text == nullptr || *text == '\0') {
        return kDefaultSlot;
    }
    const std::optional<int> slot = parse_slot(text);
    if (!slot && !g_complained.exchange(true)) {
        (void)std::fprintf(stderr, "board: read slot from APCARD_SLOT '%s': not 0..255, using %d\n",
                           text, kDefaultSlot);
    }
    return slot.value_or(kDefaultSlot);
}
