#include "counters.h"

#include "counters_json.h"
#include "raw_msg/raw_msg.h"
#include "timer/unblock.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <new>
#include <optional>
#include <string>

namespace {

std::atomic<bool> g_asked{false}; // set on whichever thread takes the signal
static_assert(std::atomic<bool>::is_always_lock_free, "a handler sets it");

void ask(int /*signo*/) {
    g_asked = true;
    post_test();
}

// Nothing: no memory for it, which is no reason to stop serving.
std::optional<std::string> line_of(const ruk_counter_set &counters) {
    try {
        return counters_json(counters) + "\n";
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

} // namespace

void install_counters_signal() {
    (void)signal(SIGUSR1, ask); // cannot fail for this signal
    unblock({SIGUSR1});
}

// In one piece, so that other threads' log lines come before or behind it.
void show_counters_when_asked() {
    if (!g_asked.exchange(false)) {
        return;
    }
    ruk_counter_set counters{};
    counters.size = sizeof counters;
    (void)ruk_counters(&counters); // cannot fail for this size
    const auto line = line_of(counters);
    if (!line) {
        (void)fputs("rukd: counters: no memory for the line\n", stderr);
        return;
    }
    (void)fwrite(line->data(), 1, line->size(), stdout); // nobody reads the log any more: no matter
    (void)fflush(stdout);
}
