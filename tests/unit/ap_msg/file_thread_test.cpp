#include "ap_msg/ap_msg.h"
#include "helpers/log_lines.h"
#include "helpers/service_message.h"
#include "stand_ins/fake_board.h"
#include "stand_ins/fake_card.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <semaphore.h>

namespace {

// The handlers, played by the test: they record and, behind a shut gate, wait.
struct Handled {
    char kind;     // 'w' write, 'r' read, 'u' update
    Bytes head;    // 40 bytes
    Bytes request; // 2048 bytes
};

struct Handlers {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<Handled> done;
    bool is_open = true;
    size_t waits = 0; // how often the file thread began to wait for a request
    size_t ticks = 0; // so many of the next waits are interrupted at once
};

Handlers &handlers() {
    static auto *const the_handlers = new Handlers;
    return *the_handlers;
}

int handle(char kind, const void *head, const void *request) {
    Handlers &h = handlers();
    std::unique_lock guard(h.lock);
    const auto *head_bytes = static_cast<const uint8_t *>(head);
    const auto *bytes = static_cast<const uint8_t *>(request);
    h.done.push_back({kind, Bytes(head_bytes, head_bytes + 40), Bytes(bytes, bytes + 2048)});
    h.changed.notify_all();
    h.changed.wait(guard, [&] { return h.is_open; });
    return -1; // nobody is told
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_sem_wait(sem_t *semaphore);
int __wrap_sem_wait(sem_t *semaphore);
int __wrap_write_file_handle(void *head, void *req);
int __wrap_read_file_handle(void *head, void *req);
int __wrap_update_file_handle(void *head, void *req);

// Only the file thread waits for a semaphore here.
int __wrap_sem_wait(sem_t *semaphore) {
    Handlers &h = handlers();
    {
        const std::lock_guard guard(h.lock);
        if (h.ticks > 0) {
            h.ticks -= 1;
            errno = EINTR;
            return -1;
        }
        h.waits += 1;
    }
    h.changed.notify_all();
    return __real_sem_wait(semaphore);
}

int __wrap_write_file_handle(void *head, void *req) {
    return handle('w', head, req);
}

int __wrap_read_file_handle(void *head, void *req) {
    return handle('r', head, req);
}

int __wrap_update_file_handle(void *head, void *req) {
    return handle('u', head, req);
}
}
#pragma GCC visibility pop

namespace {

using namespace std::chrono_literals;
constexpr auto kLongEnough = 20s;  // for what must happen
constexpr auto kShortWhile = 50ms; // for what must not

void *as_argument(intptr_t index) {
    return reinterpret_cast<void *>(index); // NOLINT(performance-no-int-to-ptr)
}

bool await_handled(size_t count) {
    Handlers &h = handlers();
    std::unique_lock guard(h.lock);
    return h.changed.wait_for(guard, kLongEnough, [&] { return h.done.size() >= count; });
}

// The file thread waits for its count-th request: it has ended the work on all before.
bool await_idle(size_t count) {
    Handlers &h = handlers();
    std::unique_lock guard(h.lock);
    return h.changed.wait_for(guard, kLongEnough, [&] { return h.waits >= count; });
}

void set_gate(bool is_open) {
    Handlers &h = handlers();
    {
        const std::lock_guard guard(h.lock);
        h.is_open = is_open;
    }
    h.changed.notify_all();
}

void interrupt_next(size_t waits) {
    Handlers &h = handlers();
    const std::lock_guard guard(h.lock);
    h.ticks = waits;
}

std::vector<Handled> handled() {
    Handlers &h = handlers();
    const std::lock_guard guard(h.lock);
    return h.done;
}

class FileThread : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        board_reset();
        Handlers &h = handlers();
        const std::lock_guard guard(h.lock);
        h.done.clear();
        h.is_open = true;
        h.waits = 0;
        h.ticks = 0;
    }

    // A waiting thread ends where it waits; a working one has to be awaited first.
    void TearDown() override {
        for (const CreatedThread &created : board_threads()) {
            if (created.is_running) {
                pthread_cancel(created.thread);
                pthread_join(created.thread, nullptr);
            }
        }
    }

    // The semaphore is there, the thread is not yet.
    static void keep_back() {
        board_creates_threads(Creation::kIsKeptBack);
        ASSERT_EQ(PmdApFileTaskCreate(as_argument(1)), 0);
    }
    void let_run() {
        const CreatedThread kept = board_threads().at(0);
        board_creates_threads(Creation::kRuns);
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, nullptr, kept.body, kept.argument), 0);
    }
    static void start() {
        ASSERT_EQ(PmdApFileTaskCreate(as_argument(1)), 0);
        ASSERT_TRUE(await_idle(1));
    }
};

Bytes picture_data(const std::string &name) {
    Bytes data(8 + name.size());
    data[0] = 2; // the width
    data[4] = 3; // the height
    std::copy(name.begin(), name.end(), data.begin() + 8);
    return data;
}

Bytes file_request(uint8_t code, const std::string &name, uint16_t seq = 1) {
    return message_with({.code = code, .seq = seq, .data = picture_data(name)});
}

// What the handler gets: the request head and the data, zeros behind them.
Bytes request_area(const Bytes &message) {
    Bytes area(message.begin() + 24, message.end());
    area.resize(2048);
    return area;
}

Bytes first_40(const Bytes &message) {
    return {message.begin(), message.begin() + 40};
}

TEST_F(FileThread, IsARealTimeThread) {
    keep_back();
    const auto threads = board_threads();
    ASSERT_EQ(threads.size(), 1U);
    EXPECT_TRUE(threads[0].has_attributes);
    EXPECT_EQ(threads[0].inherits, PTHREAD_EXPLICIT_SCHED);
    EXPECT_EQ(threads[0].policy, SCHED_FIFO);
    EXPECT_EQ(threads[0].priority, 95);
    EXPECT_EQ(threads[0].body, ApMsgFileProc);
    EXPECT_EQ(threads[0].argument, as_argument(1));
}

TEST_F(FileThread, ReportsThatItCannotBeCreated) {
    board_creates_threads(Creation::kFails);
    EXPECT_EQ(test::log_of([] { EXPECT_EQ(PmdApFileTaskCreate(nullptr), -1); }),
              "|failed to create thread \n");
}

TEST_F(FileThread, PinsTheProcessAndSaysWhoItIs) {
    board_answers_pinning(-1);
    const std::string log = test::log_of([] {
        ASSERT_EQ(PmdApFileTaskCreate(as_argument(7)), 0);
        ASSERT_TRUE(await_idle(1));
    });
    const std::string begin = "|ApMsgFileProc : index 7 sched_setaffinity failed\n"
                              "|file write  thread id : ";
    ASSERT_TRUE(log.starts_with(begin)) << log;
    ASSERT_TRUE(log.ends_with(" index = 7\n")) << log;
    EXPECT_NE(std::stoi(log.substr(begin.size())), gettid());
    const auto pinnings = board_pinnings();
    ASSERT_EQ(pinnings.size(), 1U);
    EXPECT_EQ(pinnings[0].pid, getpid());
    EXPECT_EQ(pinnings[0].size, 128U);
    EXPECT_EQ(CPU_COUNT(&pinnings[0].processors), 1);
    EXPECT_TRUE(CPU_ISSET(3, &pinnings[0].processors));
}

TEST_F(FileThread, HandsEachRequestToItsHandler) {
    start();
    const Bytes write = file_request(0xEE, std::string("a.bmp") + '\0');
    const Bytes read = file_request(0xDD, "out", 2);
    const Bytes update = file_request(0xEF, "fw.bin", 3);
    EXPECT_EQ(deal(write), 0);
    ASSERT_TRUE(await_idle(2));
    EXPECT_EQ(deal(read), 0);
    ASSERT_TRUE(await_idle(3));
    EXPECT_EQ(deal(update), 0);
    ASSERT_TRUE(await_idle(4));
    const auto done = handled();
    ASSERT_EQ(done.size(), 3U);
    EXPECT_EQ(done[0].kind, 'w');
    EXPECT_EQ(done[0].head, first_40(write));
    EXPECT_EQ(done[0].request, request_area(write));
    EXPECT_EQ(done[1].kind, 'r');
    EXPECT_EQ(done[1].head, first_40(read));
    EXPECT_EQ(done[1].request, request_area(read));
    EXPECT_EQ(board_messages().size(), 0U); // pictures get no reply, whatever became of them
    EXPECT_EQ(done[2].kind, 'u');
    EXPECT_EQ(done[2].head, first_40(update));
    EXPECT_EQ(done[2].request, request_area(update));
}

TEST_F(FileThread, TakesALongestRequestWhole) {
    start();
    const Bytes message = message_with({.code = 0xEE, .data = Bytes(1010, 'x')});
    EXPECT_EQ(deal(message), 0);
    ASSERT_TRUE(await_idle(2));
    EXPECT_EQ(handled().at(0).request, request_area(message));
}

TEST_F(FileThread, NeverSeesARequestThatIsTooLong) {
    start();
    (void)test::output_of([] {
        EXPECT_EQ(deal(message_with({.code = 0xEE, .data = Bytes(1011, 'x')})), 0);
        EXPECT_EQ(deal(message_with({.code = 0xEE, .len = 20, .data = Bytes(19, 'x')})), 0);
    });
    EXPECT_EQ(deal(file_request(0xDD, "good")), 0);
    ASSERT_TRUE(await_idle(2));
    EXPECT_EQ(handled().size(), 1U);
    EXPECT_EQ(handled()[0].kind, 'r');
}

TEST_F(FileThread, DoesNotPickUpTheTailOfAnOlderName) {
    start();
    EXPECT_EQ(deal(file_request(0xEE, "a-very-long-name-that-would-show-behind-a-short-one")), 0);
    ASSERT_TRUE(await_idle(2));
    const Bytes message = file_request(0xEE, "short"); // no NUL
    EXPECT_EQ(deal(message), 0);
    ASSERT_TRUE(await_idle(3));
    EXPECT_EQ(handled().at(1).request, request_area(message));
}

TEST_F(FileThread, DoesNotPickUpTheHeadOfAnOlderMessage) {
    start();
    EXPECT_EQ(deal(message_with({.code = 0xEE, .data = {0xB0, 0xB1, 0xB2}})), 0);
    ASSERT_TRUE(await_idle(2));
    const Bytes message = message_with({.code = 0xEE, .data = {0xA0}}); // 39 bytes
    EXPECT_EQ(deal(message), 0);
    ASSERT_TRUE(await_idle(3));
    Bytes head = message;
    head.push_back(0);
    EXPECT_EQ(handled().at(1).head, head);
    EXPECT_EQ(handled().at(1).request, request_area(message));
}

// A signal may end a wait before there is a request.
TEST_F(FileThread, TakesNoInterruptionForARequest) {
    start();
    interrupt_next(3);
    EXPECT_EQ(deal(file_request(0xEE, "name")), 0);
    ASSERT_TRUE(await_idle(2));
    EXPECT_EQ(handled().size(), 1U);
}

TEST_F(FileThread, GetsNoDataThatLenDoesNotCount) {
    start();
    Bytes message = file_request(0xEE, "name");
    const Bytes counted = message;
    message.insert(message.end(), 100, 'y');
    EXPECT_EQ(deal(message), 0);
    ASSERT_TRUE(await_idle(2));
    EXPECT_EQ(handled().at(0).request, request_area(counted));
}

// The request is taken over before any work is done, so the receive thread is free at once.
TEST_F(FileThread, IsNotWaitedForByTheReceiveThread) {
    keep_back();
    for (const int code : {0xEE, 0xDD, 0xEF}) {
        const MessageFields fields{.code = static_cast<uint8_t>(code), .data = picture_data("x")};
        EXPECT_EQ(test::log_of([&] { EXPECT_EQ(deal(message_with(fields)), 0); }),
                  request_line(fields));
    }
    EXPECT_EQ(handled().size(), 0U);
    EXPECT_EQ(card_calls().size(), 0U);
    EXPECT_EQ(board_messages().size(), 0U);
}

TEST_F(FileThread, CarriesOutTheSecondOfTwoRequestsTwice) {
    keep_back();
    EXPECT_EQ(deal(file_request(0xEE, "first", 1)), 0);
    const Bytes second = file_request(0xDD, "second", 2);
    EXPECT_EQ(deal(second), 0);
    let_run();
    ASSERT_TRUE(await_idle(3));
    const auto done = handled();
    ASSERT_EQ(done.size(), 2U);
    for (const Handled &once : done) {
        EXPECT_EQ(once.kind, 'r');
        EXPECT_EQ(once.head, first_40(second));
        EXPECT_EQ(once.request, request_area(second));
    }
}

TEST_F(FileThread, HoldsUpTheNextFileRequestButNoRead) {
    start();
    set_gate(false);
    const Bytes second = file_request(0xDD, "second", 2);
    EXPECT_EQ(deal(file_request(0xEE, "first", 1)), 0);
    ASSERT_TRUE(await_handled(1));

    auto next = std::async(std::launch::async, [&] { return deal(second); });
    EXPECT_EQ(next.wait_for(kShortWhile), std::future_status::timeout);
    EXPECT_EQ(deal(message_with({.len = 4})), 0);
    EXPECT_EQ(board_messages().size(), 1U);
    EXPECT_EQ(next.wait_for(0s), std::future_status::timeout);
    EXPECT_EQ(handled().size(), 1U);

    set_gate(true);
    ASSERT_EQ(next.wait_for(kLongEnough), std::future_status::ready);
    EXPECT_EQ(next.get(), 0);
    ASSERT_TRUE(await_idle(3));
    const auto done = handled();
    ASSERT_EQ(done.size(), 2U);
    EXPECT_EQ(done[1].request, request_area(second));
}

TEST_F(FileThread, WorksOffRequestsInTheirOrder) {
    start();
    for (uint16_t seq = 0; seq < 50; seq++) {
        EXPECT_EQ(deal(file_request(seq % 2 == 0 ? 0xEE : 0xDD, "name", seq)), 0);
        ASSERT_TRUE(await_idle(2U + seq));
    }
    const auto done = handled();
    ASSERT_EQ(done.size(), 50U);
    for (uint16_t seq = 0; seq < 50; seq++) {
        EXPECT_EQ(done[seq].kind, seq % 2 == 0 ? 'w' : 'r');
        EXPECT_EQ(done[seq].request[6], seq);
    }
}

// However fast requests come, the last one is carried out, and as often as there were requests.
TEST_F(FileThread, LosesNoPost) {
    start();
    constexpr size_t kRequests = 500;
    for (size_t i = 0; i < kRequests; i++) {
        EXPECT_EQ(deal(file_request(0xEE, "name", static_cast<uint16_t>(i))), 0);
    }
    ASSERT_TRUE(await_idle(1 + kRequests));
    const auto done = handled();
    ASSERT_EQ(done.size(), kRequests);
    EXPECT_EQ(done.back().request[6], (kRequests - 1) % 256);
    EXPECT_EQ(done.back().request[7], (kRequests - 1) / 256);
}

} // namespace
