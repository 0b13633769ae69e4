// exchange.h - a frame that came in, the frames to send out for it, and what became of them.
#ifndef CARD_EXCHANGE_H
#define CARD_EXCHANGE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "faults/faults.h"
#include "wire/bytes.h"

namespace card {

struct Card;
struct Protocol;

enum class ReplyKind : uint8_t { kReadData, kAcknowledgement, kNoise };

// The largest reply of any protocol: a bus block of 8000 bytes and its 26 bytes around it.
constexpr size_t kLargestReply = 8026;

/** One frame to send. */
struct Reply {
    const Protocol *protocol = nullptr; // who can describe it; null for noise
    ReplyKind kind = ReplyKind::kNoise;
    FaultSet faults;
    uint64_t delay_us = 0;
    bool behind_next = false; // let the next reply on this link overtake it
    unsigned copies = 1;      // 0: lost, only the trace hears of it
    size_t size = 0;
    std::array<uint8_t, kLargestReply> bytes;

    [[nodiscard]] Bytes frame() const {
        return Bytes(bytes).first(size);
    }
};

/** What became of a received frame; the texts are in run/trace.cpp. */
enum class Disposition : uint8_t {
    kOtherProtocol,
    kOtherMarkers,
    kOtherCard,
    kBadType,
    kBadLength,
    kBadCode,
    kBadChecksum,
    kLostRequest,
    kWritten, // plain write, no answer wanted
    kSilent,
    kRefused,
    kAnswered,
};

/** The result of one received frame. Large: kept by the caller and filled anew for each frame. */
struct Outcome {
    const Protocol *protocol = nullptr; // null when nobody claimed the frame
    Disposition disposition = Disposition::kOtherProtocol;
    bool resend = false;
    FaultSet faults;    // those committed on the request itself
    std::string remark; // for the trace: what the request means to the card as it is now
    size_t count = 0;
    std::array<Reply, 2> replies; // room for one noise frame and one reply
};

/** A received frame and where and when it came. */
struct Arrival {
    Bytes frame;
    size_t link = 0;
    uint64_t now_us = 0;
};

struct Protocol {
    const char *name;
    bool (*claims)(Bytes frame);
    void (*handle)(Card &card, const Arrival &arrival, Outcome &out);
    std::string (*describe)(Bytes frame); // one line for the trace, either direction
};

/** The next free place in the outcome, emptied, or null when all are taken. */
Reply *outcome_add(Outcome &out);

} // namespace card

#endif
