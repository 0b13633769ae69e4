// choices.h - every decision of a run: who runs next, what the wire and the calls do.
//
// A run is repeated exactly by making the same decisions again. They come from a seed (random and
// pct), from the search through all schedules (exhaustive) or from a list (replay).
#ifndef SIMULATION_CHOICES_H
#define SIMULATION_CHOICES_H

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

enum class Strategy {
    kRandom,     // uniformly, at every call
    kPct,        // the thread of the highest random priority, with a few changes of priority
    kExhaustive, // all schedules with so many preemptions; wire and calls do what they should
    kReplay,     // one schedule that the exhaustive search has printed
};

const char *name_of(Strategy strategy);

/** A small generator: 10 million runs need 10 million of them. */
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {
    }
    uint64_t next();
    uint32_t below(uint32_t n) {
        return static_cast<uint32_t>((next() >> 32) * n >> 32);
    }

private:
    uint64_t state_;
};

class Choices {
public:
    Strategy strategy = Strategy::kRandom;
    uint32_t preemption_bound = 2; // exhaustive

    void begin_seed(uint64_t seed);

    /** Exhaustive: the next schedule. False: there is none left. */
    bool begin_next_schedule();
    void begin_search();
    void begin_replay(const std::string &schedule);

    /** One of n ways for the wire, the calls or the case to go; 0 is the ordinary one. */
    uint32_t pick(uint32_t n);
    bool happens(uint32_t one_in) {
        return one_in != 0 && pick(one_in) == one_in - 1;
    }

    /** One of n ways that the exhaustive search tries all of, too. */
    uint32_t branch(uint32_t n);

    /** Which of n threads runs; 0 is the running one when it could go on. */
    uint32_t schedule(uint32_t n, bool could_go_on);

    /** The exhaustive search leaves a part of the run as it comes: what is not its subject. */
    bool is_held = false;

    /** Decisions about threads, apart from those about data: a priority, a point of change. */
    Random threads{0};

    [[nodiscard]] bool is_seeded() const {
        return strategy == Strategy::kRandom || strategy == Strategy::kPct;
    }

    /** The schedule of this run as begin_replay takes it: "number:choice,..." */
    [[nodiscard]] std::string schedule_text() const;

private:
    struct Node {
        uint32_t options;
        uint32_t taken;
    };
    uint32_t search(uint32_t n);

    Random data_{0};
    std::vector<Node> path_;
    size_t depth_ = 0;
    uint32_t preemptions_ = 0;
    bool is_first_ = true;
};

extern Choices g_choices;

} // namespace sim

#endif
