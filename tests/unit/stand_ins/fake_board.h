// fake_board.h - the board's message library and its scheduler, played by the test.
//
// Linked with --wrap=apipc_send,apipc_init,apipc_loop_wait,apcard_bit_self,sched_setaffinity,
// pthread_create.
#ifndef TESTS_UNIT_STAND_INS_FAKE_BOARD_H
#define TESTS_UNIT_STAND_INS_FAKE_BOARD_H

#include <cstdint>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <vector>

struct SentMessage {
    uint32_t aptid;
    std::vector<uint8_t> bytes;

    bool operator==(const SentMessage &) const = default;
};

/** Forget everything; the slot is 2, every call succeeds, sends return kSendResult. */
void board_reset();
constexpr int kSendResult = 17;

void board_has_slot(int slot);

std::vector<SentMessage> board_messages();
void board_answers_sends(int result, int error = 0);

/** What the service registered with, and the result that it gets. */
struct Registration {
    uint32_t aptid;
    int flags;
};
std::vector<Registration> board_registrations();
void board_answers_registration(int result);

/** Messages for the service: one for each wait; behind the last one the waiting thread ends. */
void board_delivers(std::vector<std::vector<uint8_t>> messages);

/** What sched_setaffinity was called with, and the result that it gets. */
struct Pinning {
    pid_t pid;
    size_t size;
    cpu_set_t processors;
};
std::vector<Pinning> board_pinnings();
void board_answers_pinning(int result);

/** A thread that the product created, and how. Real-time scheduling is not given to it. */
struct CreatedThread {
    bool has_attributes;
    int inherits;
    int policy;
    int priority;
    void *(*body)(void *);
    void *argument;
    bool is_running; // not when the creation was made to fail or to wait
    pthread_t thread;
};
std::vector<CreatedThread> board_threads();
enum class Creation { kRuns, kFails, kIsKeptBack };
void board_creates_threads(Creation how);

#endif
