// simulate - the product under schedules and failures that a seed chooses.
//
// Exit status: 0 no fault, 1 faults, 2 usage.
#include "arguments.h"
#include "cases/cases.h"
#include "scheduler/crash.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/world.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <vector>

namespace {

using namespace sim;

struct Count {
    const Case *which;
    Strategy strategy;
    uint64_t runs;
    uint64_t next_seed;
    uint64_t first_fault; // the how-manieth run; 0: none
    bool is_complete;     // exhaustive: all schedules have been seen
};

std::vector<const Case *> all_cases() {
    std::vector<const Case *> found;
    for (const auto &cases :
         {forms_cases(), queue_cases(), cancel_cases(), link_cases(), fork_cases(), time_cases(),
          service_cases(), picture_cases(), block_cases(), small_cases()}) {
        for (const Case &row : cases) {
            found.push_back(&row);
        }
    }
    return found;
}

// The clocks that the C++ library offers are simulated here, too.
double seconds_now() {
    timespec now{};
    (void)timespec_get(&now, TIME_UTC);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

Outcome run_case(const Case &which) {
    reset_world();
    return sim::run(which.run);
}

// Says what to type to see a run again, then tells it.
void report(const Case &which, const Outcome &outcome, const std::string &again,
            void (*begin)(const std::string &), const std::string &what) {
    const uint64_t steps_before = steps();
    fprintf(stderr, "\nFAULT in case %s: %s\nagain: scripts/simulate --case %s %s\n", which.name,
            outcome.text, which.name, again.c_str());
    begin(what);
    g_is_telling = true;
    const Outcome told = run_case(which);
    g_is_telling = false;
    if (!told.failed || steps() != steps_before) {
        fprintf(stderr, "the run did not repeat itself: that is a fault of the simulation\n");
    }
}

void begin_seed_text(const std::string &seed) {
    g_choices.begin_seed(strtoull(seed.c_str(), nullptr, 10));
}

void begin_schedule_text(const std::string &schedule) {
    g_choices.begin_replay(schedule);
}

// False: a fault.
bool run_seed(const Case &which, Strategy strategy, uint64_t seed) {
    g_choices.strategy = strategy;
    g_choices.begin_seed(seed);
    const Outcome outcome = run_case(which);
    if (outcome.failed) {
        report(which, outcome,
               std::string("--strategy ") + name_of(strategy) + " --seed " + std::to_string(seed),
               begin_seed_text, std::to_string(seed));
    }
    return !outcome.failed;
}

bool run_schedule(const Case &which) {
    const Outcome outcome = run_case(which);
    if (outcome.failed) {
        const std::string schedule = g_choices.schedule_text();
        const Strategy before = g_choices.strategy;
        g_choices.strategy = Strategy::kReplay;
        report(which, outcome,
               "--preemptions " + std::to_string(g_choices.preemption_bound) + " --schedule " +
                   schedule,
               begin_schedule_text, schedule);
        g_choices.strategy = before;
    }
    return !outcome.failed;
}

bool replay_schedule(const Case &which, const std::string &schedule) {
    g_choices.strategy = Strategy::kReplay;
    g_choices.begin_replay(schedule);
    return run_schedule(which);
}

// All schedules of a case, or as many as there is time for.
void search(Count &count, double until) {
    g_choices.strategy = Strategy::kExhaustive;
    g_choices.begin_search();
    while (count.first_fault == 0 && (until == 0 || seconds_now() < until)) {
        if (!g_choices.begin_next_schedule()) {
            count.is_complete = true;
            return;
        }
        count.runs += 1;
        if (!run_schedule(*count.which)) {
            count.first_fault = count.runs;
        }
    }
}

void run_seeds(Count &count, uint64_t how_many, double until) {
    constexpr uint64_t kBetweenLooks = 16; // at the clock
    for (uint64_t i = 0; i < how_many && count.first_fault == 0; i++) {
        if (until != 0 && i % kBetweenLooks == 0 && seconds_now() > until) {
            return;
        }
        count.runs += 1;
        if (!run_seed(*count.which, count.strategy, count.next_seed++)) {
            count.first_fault = count.runs;
        }
    }
}

std::vector<Count> chosen(const Arguments &arguments, uint64_t first_seed) {
    std::vector<Count> counts;
    for (const Case *which : all_cases()) {
        for (const Strategy strategy : {Strategy::kRandom, Strategy::kPct, Strategy::kExhaustive}) {
            const bool is_asked_for =
                (arguments.only_case.empty() || arguments.only_case == which->name) &&
                (!arguments.only_strategy || *arguments.only_strategy == strategy);
            const bool is_wanted =
                strategy != Strategy::kExhaustive ||
                (which->is_small && (arguments.only_strategy || arguments.minutes > 0));
            if (is_asked_for && is_wanted) {
                counts.push_back({.which = which,
                                  .strategy = strategy,
                                  .runs = 0,
                                  .next_seed = first_seed,
                                  .first_fault = 0,
                                  .is_complete = false});
            }
        }
    }
    return counts;
}

// In turns, so that each case has its share of the time; a quarter of it is for all searches.
void run_for(std::vector<Count> &counts, double minutes) {
    constexpr uint64_t kTurn = 256;
    constexpr double kSecondsPerMinute = 60;
    const double start = seconds_now();
    const double until = start + minutes * kSecondsPerMinute;
    const auto searches = std::count_if(counts.begin(), counts.end(), [](const Count &count) {
        return count.strategy == Strategy::kExhaustive;
    });
    for (Count &count : counts) {
        if (count.strategy == Strategy::kExhaustive) {
            search(count,
                   seconds_now() + minutes * kSecondsPerMinute / 4 / static_cast<double>(searches));
        }
    }
    bool goes_on = true;
    while (goes_on && seconds_now() < until) {
        goes_on = false;
        for (Count &count : counts) {
            if (count.strategy != Strategy::kExhaustive && count.first_fault == 0) {
                run_seeds(count, kTurn, until);
                goes_on = true;
            }
        }
    }
}

int show(const std::vector<Count> &counts, double took) {
    uint64_t runs = 0;
    bool has_faults = false;
    for (const Count &count : counts) {
        runs += count.runs;
        has_faults = has_faults || count.first_fault != 0;
        fprintf(stdout, "%-22s %-10s %9llu %s\n", count.which->name, name_of(count.strategy),
                static_cast<unsigned long long>(count.runs),
                count.first_fault != 0 ? "FAULT"
                : count.is_complete    ? "all schedules, no fault"
                                       : "no fault");
    }
    fprintf(stdout, "%llu schedules, %.0f a second\n", static_cast<unsigned long long>(runs),
            static_cast<double>(runs) / took);
    return has_faults ? 1 : 0;
}

const Case *find_case(const std::string &name) {
    for (const Case *which : all_cases()) {
        if (name == which->name) {
            return which;
        }
    }
    fprintf(stderr, "simulate: no case: %s\n", name.c_str());
    std::exit(2);
}

// The runs that have failed once: none may fail again.
int run_kept(const std::string &file) {
    std::ifstream in(file);
    std::string line;
    int runs = 0;
    int faults = 0;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string name;
        std::string strategy;
        std::string what;
        if (!(words >> name >> strategy >> what) || name.front() == '#') {
            continue;
        }
        runs += 1;
        const Case &which = *find_case(name);
        const bool is_fine =
            strategy == name_of(Strategy::kExhaustive)
                ? replay_schedule(which, what)
                : run_seed(which,
                           strategy == name_of(Strategy::kPct) ? Strategy::kPct : Strategy::kRandom,
                           strtoull(what.c_str(), nullptr, 10));
        faults += is_fine ? 0 : 1;
    }
    fprintf(stdout, "%d kept runs, %d faults\n", runs, faults);
    return runs > 0 && faults == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    const Arguments arguments = read_arguments(argc, argv);
    catch_crashes();
    g_is_telling = arguments.tells;
    g_choices.preemption_bound = arguments.preemptions;
    if (arguments.lists) {
        for (const Case *which : all_cases()) {
            fprintf(stdout, "%-22s %s\n", which->name, which->what);
        }
        return 0;
    }
    if (!arguments.kept.empty()) {
        return run_kept(arguments.kept);
    }
    if (!arguments.only_case.empty()) {
        const Case &which = *find_case(arguments.only_case);
        if (!arguments.schedule.empty()) {
            return replay_schedule(which, arguments.schedule) ? 0 : 1;
        }
    }
    const double start = seconds_now();
    const uint64_t first_seed =
        arguments.seed ? *arguments.seed : static_cast<uint64_t>(time(nullptr)) << 20;
    std::vector<Count> counts = chosen(arguments, first_seed);
    if (arguments.minutes > 0) {
        fprintf(stdout, "seeds from %llu\n", static_cast<unsigned long long>(first_seed));
        run_for(counts, arguments.minutes);
    } else {
        for (Count &count : counts) {
            if (count.strategy == Strategy::kExhaustive) {
                search(count, 0);
            } else {
                run_seeds(count, arguments.count, 0);
            }
        }
    }
    return show(counts, seconds_now() - start);
}
