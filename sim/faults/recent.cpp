#include "faults/recent.h"

#include <span>

namespace card {

namespace {

// Enough that open requests of one second hardly ever push each other out, and small enough to stay
// in the processor's cache.
constexpr size_t kSets = 4096;
constexpr size_t kWays = 4;

bool is_repeat_of(const RecentRequest &entry, uint64_t fingerprint, uint64_t now_us) {
    return entry.used && entry.fingerprint == fingerprint &&
           now_us - entry.seen_us <= kResendWindowUs &&
           (!entry.settled || now_us <= entry.settled_us + kSettledWindowUs);
}

// Whether `a` is the better place for a new request: never used, then settled, then old.
bool is_freer(const RecentRequest &a, const RecentRequest &b) {
    if (a.used != b.used) {
        return !a.used;
    }
    return a.settled != b.settled ? a.settled : a.seen_us < b.seen_us;
}

} // namespace

RecentRequests::RecentRequests() : entries(kSets * kWays) {
}

RecentLookup recent_note(RecentRequests &recent, uint64_t fingerprint, uint64_t now_us) {
    const std::span set(recent.entries.data() + (fingerprint % kSets) * kWays, kWays);
    RecentRequest *freest = set.data();
    for (RecentRequest &entry : set) {
        if (is_repeat_of(entry, fingerprint, now_us)) {
            entry.seen_us = now_us;
            return {&entry, true};
        }
        if (is_freer(entry, *freest)) {
            freest = &entry;
        }
    }
    *freest = RecentRequest{};
    freest->fingerprint = fingerprint;
    freest->seen_us = now_us;
    freest->used = true;
    return {freest, false};
}

} // namespace card
