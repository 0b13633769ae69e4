#include "faults/faults.h"

#include <algorithm>

namespace card {

const std::array<const char *, kFaultKinds> kFaultNames = {
    "drop_request", "drop",    "corrupt",    "duplicate", "delay",     "reorder", "noise",
    "error",        "silence", "lie_length", "ack_code",  "read_code", "type"};

namespace {

size_t row(Fault fault) {
    return static_cast<size_t>(fault);
}

// A Weyl sequence (a step by an odd constant) whose every state is well mixed. The standard
// library's distributions are not used because they differ between libraries, and a seed has to
// mean the same everywhere.
uint64_t next_random(uint64_t &state) {
    state += 0x9E3779B97F4A7C15U;
    uint64_t mixed = state;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31);
}

uint64_t next_below(uint64_t &state, uint64_t bound) {
    return next_random(state) % bound; // the bias is below 2^-40 for the bounds used here
}

bool is_ordered(const std::vector<NthOrder> &orders, Fault fault, uint64_t number) {
    return std::ranges::any_of(orders, [&](const NthOrder &order) {
        return order.fault == fault && order.number == number;
    });
}

uint64_t draw_delay_us(FaultEngine &engine) {
    const FaultConfig &config = engine.config;
    const uint64_t spread = config.delay_max_us - config.delay_min_us;
    return config.delay_min_us + next_below(engine.streams[row(Fault::kDelay)], spread + 1);
}

bool matches(const AddressRule &rule, Fault fault, uint32_t addr) {
    const AddressRange &range = rule.range;
    const bool holds = range.times == 0 || rule.hits < range.times;
    return holds && rule.fault == fault && addr >= range.first && addr <= range.last;
}

} // namespace

std::optional<Fault> find_random_fault(std::string_view name) {
    for (size_t i = 0; i < kRandomFaults; i++) {
        if (name == kFaultNames[i]) {
            return static_cast<Fault>(i);
        }
    }
    return std::nullopt;
}

FaultEngine make_fault_engine(const FaultConfig &config) {
    FaultEngine engine;
    engine.config = config;
    uint64_t seeding = config.seed;
    for (uint64_t &stream : engine.streams) {
        stream = next_random(seeding);
    }
    engine.details = next_random(seeding);
    return engine;
}

bool fault_happens(FaultEngine &engine, Fault fault) {
    const size_t i = row(fault);
    const uint64_t number = ++engine.chances[i];
    const uint32_t rate = engine.config.rates_ppm[i];
    const bool drawn = rate > 0 && next_below(engine.streams[i], kAlways) < rate;
    return drawn || is_ordered(engine.config.nth, fault, number);
}

ReplyFaults draw_reply_faults(FaultEngine &engine) {
    constexpr std::array kKinds = {Fault::kDrop, Fault::kCorrupt, Fault::kDuplicate, Fault::kDelay,
                                   Fault::kReorder};
    ReplyFaults out;
    for (const Fault fault : kKinds) {
        if (fault_happens(engine, fault)) {
            out.set.add(fault);
        }
    }
    if (out.set.has(Fault::kDelay)) {
        out.delay_us = draw_delay_us(engine);
    }
    if (out.set.has(Fault::kCorrupt)) {
        constexpr uint64_t kChanges = 0xFFFF; // every change but none
        out.checksum_change = static_cast<uint16_t>(1 + draw_detail(engine, kChanges));
    }
    return out;
}

uint64_t draw_detail(FaultEngine &engine, uint64_t bound) {
    return next_below(engine.details, bound);
}

const AddressRule *apply_rule(FaultEngine &engine, Fault fault, uint32_t addr) {
    auto &rules = engine.config.rules;
    const auto found = std::ranges::find_if(
        rules, [&](const AddressRule &rule) { return matches(rule, fault, addr); });
    if (found == rules.end()) {
        return nullptr;
    }
    found->hits++;
    return &*found;
}

} // namespace card
