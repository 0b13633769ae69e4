// faults.h - decides which faults the card commits, from a seed and from address rules.
//
// Each random fault has its own stream of random numbers and draws from it once per reply (or per
// request), whatever the other faults do: adding a delay does not change which replies are lost.
#ifndef CARD_FAULTS_H
#define CARD_FAULTS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace card {

/** Parts per million of 100 %. */
constexpr uint32_t kAlways = 1000000;

/** An inclusive range of addresses, and how many times a rule on it applies (0: always). */
struct AddressRange {
    uint32_t first = 0;
    uint32_t last = 0;
    uint64_t times = 0;
};

enum class Fault : uint8_t {
    kDropRequest, // a request is treated as lost on its way to the card
    kDrop,        // a reply is lost
    kCorrupt,     // a reply's checksum is wrong
    kDuplicate,   // a reply is sent twice
    kDelay,       // a reply is late
    kReorder,     // a reply is overtaken by the next one
    kNoise,       // unrelated traffic is sent before the answer
    kError,       // a request is refused with an error status
    kSilence,     // a request is carried out and never answered
    kLieLength,   // a reply says (and may carry) another length
    kAckCode,     // an acknowledgement has another code
    kReadCode,    // a read reply has another code
    kType,        // a reply has another type field
};
constexpr size_t kFaultKinds = 13;
constexpr size_t kRandomFaults = 7; // the first so many: those that have a rate

/** Names for options, trace and counters, in the enum's order. */
extern const std::array<const char *, kFaultKinds> kFaultNames;

/** The faults that were committed on one frame. */
struct FaultSet {
    uint32_t bits = 0;

    void add(Fault fault) {
        bits |= 1U << static_cast<unsigned>(fault);
    }
    [[nodiscard]] bool has(Fault fault) const {
        return (bits >> static_cast<unsigned>(fault) & 1U) != 0;
    }
};

/** A fault that is committed on exactly this chance, counted from 1. */
struct NthOrder {
    Fault fault = Fault::kDrop;
    uint64_t number = 0;
};

/** How a reply's length is changed. */
struct LengthLie {
    bool relative = false; // add `amount` to the honest length
    uint32_t amount = 0;
    bool field_only = false; // leave the payload as it would have been
};

/** A fault for the requests to a range of addresses. */
struct AddressRule {
    Fault fault = Fault::kSilence;
    AddressRange range{};
    uint8_t status = 0;     // kError
    bool with_data = false; // kError: read replies carry the data all the same
    LengthLie lie{};        // kLieLength
    uint64_t hits = 0;      // how many times it was applied
};

/** All that the options say about faults. */
struct FaultConfig {
    uint64_t seed = 1;
    std::array<uint32_t, kRandomFaults> rates_ppm{};
    uint64_t delay_min_us = 0;
    uint64_t delay_max_us = 0;
    std::vector<NthOrder> nth{};
    std::vector<AddressRule> rules{};
    std::optional<uint8_t> ack_code{};
    std::optional<uint8_t> read_code{};
    std::optional<uint16_t> reply_type{};
};

struct FaultEngine {
    FaultConfig config;
    std::array<uint64_t, kRandomFaults> streams{}; // states of the random number streams
    std::array<uint64_t, kRandomFaults> chances{}; // opportunities so far
    uint64_t details = 0;                          // stream for what a fault looks like
};

/** What the dice say about one reply. */
struct ReplyFaults {
    FaultSet set;
    uint64_t delay_us = 0;
    uint16_t checksum_change = 0; // not 0 when the set has kCorrupt
};

/** The fault of that name, if it is one that has a rate. */
std::optional<Fault> find_random_fault(std::string_view name);

FaultEngine make_fault_engine(const FaultConfig &config);

/** Throw the dice for one opportunity of a random fault. */
bool fault_happens(FaultEngine &engine, Fault fault);

/** Throw all the dice that concern a reply. */
ReplyFaults draw_reply_faults(FaultEngine &engine);

/** A number below `bound` (not 0) for the details of a fault. */
uint64_t draw_detail(FaultEngine &engine, uint64_t bound);

/**
 * The first rule of this kind that still applies to the address, or null. A rule that holds N times
 * is used up by N calls.
 */
const AddressRule *apply_rule(FaultEngine &engine, Fault fault, uint32_t addr);

} // namespace card

#endif
