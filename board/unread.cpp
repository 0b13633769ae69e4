#include "board/unread.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <mutex>

namespace {

constexpr uint32_t kNobody = 0xFFFFFFFF; // keys have 24 bits
constexpr size_t kRemembered = 256;      // one card's modules

constexpr std::array<uint32_t, kRemembered> nobody() {
    std::array<uint32_t, kRemembered> keys{};
    keys.fill(kNobody);
    return keys;
}

std::mutex g_lock; // guards the two below; leaf
std::array<uint32_t, kRemembered> g_unread = nobody();
size_t g_next; // the place that was filled first

} // namespace

namespace board {

bool is_unread(uint32_t key) {
    const std::lock_guard guard(g_lock);
    return std::find(g_unread.begin(), g_unread.end(), key) != g_unread.end();
}

void note_unread(uint32_t key, bool found_no_room) {
    const std::lock_guard guard(g_lock);
    std::replace(g_unread.begin(), g_unread.end(), key, kNobody);
    if (found_no_room) {
        g_unread[g_next] = key;
        g_next = (g_next + 1) % kRemembered;
    }
}

} // namespace board
