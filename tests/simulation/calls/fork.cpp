// fork and pthread_atfork.
#include "calls/fork.h"

#include "calls/locks.h"
#include "memory/races.h"
#include "scheduler/scheduler.h"
#include "scheduler/trace.h"
#include "world/world.h"

#include <vector>

namespace sim {

namespace {

struct Handlers {
    void (*prepare)();
    void (*parent)();
    void (*child)();
};

// Those registered before main, and in this run. Constructors of other files are among the callers.
std::vector<Handlers> &at_start() {
    static std::vector<Handlers> handlers;
    return handlers;
}
std::vector<Handlers> &in_this_run() {
    static std::vector<Handlers> handlers;
    return handlers;
}
bool g_has_started;

} // namespace

void reset_fork() {
    if (!g_has_started) {
        at_start() = in_this_run();
        g_has_started = true;
    }
    in_this_run() = at_start();
}

void fork_child() {
    for (auto row = in_this_run().rbegin(); row != in_this_run().rend(); ++row) {
        if (row->prepare != nullptr) {
            row->prepare();
        }
    }
    point("fork");
    SIM_TELL("forks: the child goes on, alone");
    drop_other_threads();
    races_forked();
    forget_locks_of_dropped();
    reset_standard_output(); // the C library does that in a child
    for (const Handlers &row : in_this_run()) {
        if (row.child != nullptr) {
            row.child();
        }
    }
}

} // namespace sim

extern "C" {

// NOLINTBEGIN: the linker's name
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    sim::in_this_run().push_back({.prepare = prepare, .parent = parent, .child = child});
    return 0;
}
// NOLINTEND
}
