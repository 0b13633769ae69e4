// fork and pthread_atfork.
#include "fork.h"

#include "races.h"
#include "scheduler.h"
#include "trace.h"
#include "world.h"

#include <vector>

namespace sim {

namespace {

struct Handlers {
    void (*prepare)();
    void (*parent)();
    void (*child)();
};

std::vector<Handlers> g_at_start; // registered before main
std::vector<Handlers> g_handlers; // in this run
bool g_has_started;

} // namespace

void reset_fork() {
    if (!g_has_started) {
        g_at_start = g_handlers;
        g_has_started = true;
    }
    g_handlers = g_at_start;
}

void fork_child() {
    for (auto row = g_handlers.rbegin(); row != g_handlers.rend(); ++row) {
        if (row->prepare != nullptr) {
            row->prepare();
        }
    }
    point("fork");
    SIM_TELL("forks: the child goes on, alone");
    drop_other_threads();
    races_forked();
    reset_standard_output(); // the C library does that in a child
    for (const Handlers &row : g_handlers) {
        if (row.child != nullptr) {
            row.child();
        }
    }
}

} // namespace sim

extern "C" {

// NOLINTBEGIN: the linker's name
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    sim::g_handlers.push_back({.prepare = prepare, .parent = parent, .child = child});
    return 0;
}
// NOLINTEND
}
