#include "scheduler/crash.h"

#include "scheduler/trace.h"

#include <csignal>
#include <cstring>

namespace sim {

namespace {

alignas(16) char g_stack[64 * 1024];

// The run's stacks are given up; the next run has new ones.
void end_run(int signo, siginfo_t *info, void *) {
    fail("crash: %s at %p", sigdescr_np(signo), info->si_addr);
}

} // namespace

void catch_crashes() {
    stack_t stack{};
    stack.ss_sp = g_stack;
    stack.ss_size = sizeof g_stack;
    (void)sigaltstack(&stack, nullptr);
    struct sigaction action {};
    action.sa_sigaction = end_run;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    for (const int signo : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        (void)sigaction(signo, &action, nullptr);
    }
}

} // namespace sim
