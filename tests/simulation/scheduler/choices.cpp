#include "scheduler/choices.h"

#include <sstream>

namespace sim {

Choices g_choices;

const char *name_of(Strategy strategy) {
    switch (strategy) {
    case Strategy::kRandom:
        return "random";
    case Strategy::kPct:
        return "pct";
    case Strategy::kExhaustive:
        return "exhaustive";
    case Strategy::kReplay:
        return "replay";
    }
    return "?";
}

// splitmix64: neighbouring seeds give unrelated runs.
uint64_t Random::next() {
    state_ += 0x9E3779B97F4A7C15;
    uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
}

void Choices::begin_seed(uint64_t seed) {
    Random source(seed);
    threads = Random(source.next());
    data_ = Random(source.next());
}

void Choices::begin_search() {
    path_.clear();
    is_first_ = true;
}

bool Choices::begin_next_schedule() {
    depth_ = 0;
    preemptions_ = 0;
    if (is_first_) {
        is_first_ = false;
        return true;
    }
    while (!path_.empty() && path_.back().taken + 1 >= path_.back().options) {
        path_.pop_back();
    }
    if (path_.empty()) {
        return false;
    }
    path_.back().taken += 1;
    return true;
}

void Choices::begin_replay(const std::string &schedule) {
    path_.clear();
    depth_ = 0;
    preemptions_ = 0;
    std::istringstream in(schedule);
    size_t number = 0;
    uint32_t taken = 0;
    char colon = 0;
    while (in >> number >> colon >> taken) {
        path_.resize(number + 1, Node{.options = 1, .taken = 0});
        path_.back() = {.options = taken + 1, .taken = taken};
        in >> colon;
    }
}

uint32_t Choices::search(uint32_t n) {
    if (n < 2 || is_held) {
        return 0;
    }
    if (depth_ == path_.size()) {
        path_.push_back({.options = n, .taken = 0});
    }
    const uint32_t taken = path_[depth_].taken;
    depth_ += 1;
    return taken < n ? taken : 0;
}

uint32_t Choices::pick(uint32_t n) {
    return is_seeded() ? data_.below(n) : 0;
}

uint32_t Choices::branch(uint32_t n) {
    return is_seeded() ? data_.below(n) : search(n);
}

uint32_t Choices::schedule(uint32_t n, bool could_go_on) {
    if (is_seeded()) {
        return threads.below(n);
    }
    if (could_go_on && preemptions_ >= preemption_bound) {
        return 0;
    }
    const uint32_t taken = search(n);
    if (could_go_on && taken != 0) {
        preemptions_ += 1;
    }
    return taken;
}

std::string Choices::schedule_text() const {
    std::ostringstream out;
    const char *separator = "";
    for (size_t i = 0; i < depth_ && i < path_.size(); i++) {
        if (path_[i].taken != 0) {
            out << separator << i << ':' << path_[i].taken;
            separator = ",";
        }
    }
    return out.str();
}

} // namespace sim
