// recent.h - remembers recent requests, to recognise a request that is sent again.
//
// A fixed table of fingerprints; nothing here allocates after the start. A repeat counts as a
// resend when the request before it is at most a second old, and has no full answer yet or got it
// only a moment ago: the board may have lost the answer, or sent again just before it came. A
// repeat of a request that was answered longer ago is a new request, because a tool that is started
// again counts from 0 again.
#ifndef CARD_RECENT_H
#define CARD_RECENT_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace card {

constexpr uint64_t kResendWindowUs = 1'000'000;
constexpr uint64_t kSettledWindowUs = 50'000; // a resend comes 60 ms or more after its request

struct RecentRequest {
    uint64_t fingerprint = 0;
    uint64_t seen_us = 0;
    uint64_t settled_us = 0; // when an answer "carried out" was or will be sent
    bool used = false;
    bool answered = false; // an intact reply, whatever its status, was or will be sent
    bool settled = false;
    uint64_t firmware_mark = 0; // firmware_side.h
};

struct RecentRequests {
    RecentRequests();
    std::vector<RecentRequest> entries;
};

struct RecentLookup {
    RecentRequest *entry; // never null; valid until the next lookup
    bool resend;
};

/** Find the request or make it known. */
RecentLookup recent_note(RecentRequests &recent, uint64_t fingerprint, uint64_t now_us);

} // namespace card

#endif
