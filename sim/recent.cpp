#include "recent.h"

#include <span>

namespace card {

namespace {

// Enough that requests of one second hardly ever push each other out.
constexpr size_t kSets = 16384;
constexpr size_t kWays = 4;

bool is_repeat_of(const RecentRequest &entry, uint64_t fingerprint, uint64_t now_us) {
    return entry.used && entry.fingerprint == fingerprint &&
           now_us - entry.seen_us <= kResendWindowUs &&
           (!entry.settled || now_us <= entry.settled_us + kSettledWindowUs);
}

bool is_older(const RecentRequest &a, const RecentRequest &b) {
    return a.used != b.used ? !a.used : a.seen_us < b.seen_us;
}

} // namespace

RecentRequests::RecentRequests() : entries(kSets * kWays) {
}

RecentLookup recent_note(RecentRequests &recent, uint64_t fingerprint, uint64_t now_us) {
    const std::span set(recent.entries.data() + (fingerprint % kSets) * kWays, kWays);
    RecentRequest *oldest = set.data();
    for (RecentRequest &entry : set) {
        if (is_repeat_of(entry, fingerprint, now_us)) {
            entry.seen_us = now_us;
            return {&entry, true};
        }
        if (is_older(entry, *oldest)) {
            oldest = &entry;
        }
    }
    *oldest = RecentRequest{};
    oldest->fingerprint = fingerprint;
    oldest->seen_us = now_us;
    oldest->used = true;
    return {oldest, false};
}

} // namespace card
