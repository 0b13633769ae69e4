#include "world/host.h"

#include "calls/link.h"
#include "calls/locks.h"
#include "memory/buffer.h"
#include "memory/queue_probe.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/card.h"
#include "world/world.h"

#include "eth_raw/eth_raw.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "queue/queue.h"
#include "raw_msg/raw_msg.h"
#include "timer/timer.h"

#include <algorithm>
#include <pthread.h>
#include <vector>

namespace sim {

namespace {

constexpr uint32_t kReadRoom = 1400;
constexpr uint32_t kFrameRoom = 1400;
constexpr uint8_t kCodeRead = 0x00;
constexpr uint8_t kCodeWrite = 0x01;
constexpr uint8_t kCodeWriteAck = 0x11;
constexpr Time kTick = 30 * kMillisecond;
constexpr Time kPass = 10 * kMillisecond;
constexpr int kQueues = 4;

struct Link {
    bool is_up;
    pthread_t receive;
    pthread_t check;
};

struct Pending { // a read whose answer may still come
    uint8_t *buffer;
    int index;
    uint32_t addr;
    uint32_t len;
    bool must_have_come;
};

struct HostState {
    Link links[kInterfaces];
    int32_t least_posts;
    int32_t most_posts;
    uint32_t next_address;
    bool is_excused;
    std::vector<Pending> pending;
    bool is_child; // what it has inherited it need not give back
    int64_t inherited_pool_blocks;
    int64_t inherited_by_own_count;
};
HostState g_host;

// Links that go down, senders that are cancelled, queues that are emptied: an answer may be in
// vain.
bool is_interrupted() {
    return g_host.is_excused;
}

// What a request is excused by: the world has had a fault, or the processor was away for a tick or
// more. Less than that must not make a difference.
bool was_rough(Time stolen_before) {
    return is_excused() || stolen_time() - stolen_before >= kTick;
}

struct ExpectedPosts {
    // A request that is cancelled half-way may have posted or not.
    ExpectedPosts(int32_t least, int32_t most) : least_(least), most_(most) {
    }
    ~ExpectedPosts() {
        expect_posts(is_done_ ? least_ : 0, most_);
    }
    void done(int32_t least, int32_t most) {
        is_done_ = true;
        least_ = least;
        most_ = most;
    }
    ExpectedPosts(const ExpectedPosts &) = delete;
    ExpectedPosts &operator=(const ExpectedPosts &) = delete;

private:
    bool is_done_ = false;
    int32_t least_;
    int32_t most_;
};

void check_bytes(int index, uint32_t addr, const uint8_t *bytes, uint32_t len) {
    for (uint32_t i = 0; i < len; i++) {
        if (bytes[i] != card_byte(index, addr + i)) {
            fail("wrong byte %02x at %u of a read of %u bytes from 0x%x", bytes[i], i, len, addr);
        }
    }
}

void check_duration(Form form, Time start, int32_t ticks, Time stolen_before, uint32_t frames) {
    if (form != Form::kAckWait && form != Form::kReadWait) {
        return;
    }
    const Time stolen = stolen_time() - stolen_before;
    const Time most = (3 * ticks * kTick + 2 * kPass) * frames + stolen + 5 * kMillisecond;
    if (now() - start > most) {
        fail("a waiting request took %lld ms, at most %lld were right",
             static_cast<long long>((now() - start) / kMillisecond),
             static_cast<long long>(most / kMillisecond));
    }
}

bool has_sent(const Asked *known, uint32_t len) {
    return known != nullptr && std::find(known->data_sent.begin(), known->data_sent.end(), len) !=
                                   known->data_sent.end();
}

bool is_unanswered(const Asked &known) {
    return known.refusals == 0 && known.odd_replies == 0 && known.data_sent.empty();
}

// Without an answer the last of three time-outs ends it; the first may be a tick and a pass short.
void check_not_too_early(Time start, int32_t ticks) {
    if (g_settings.send_fails_one_in != 0) {
        return; // it may have ended because it could not be sent
    }
    const Time least = (3 * ticks - 1) * kTick - kPass - stolen_time();
    if (now() - start < least) {
        fail("a request was given up after %lld ms, %lld were right",
             static_cast<long long>((now() - start) / kMillisecond),
             static_cast<long long>(least / kMillisecond));
    }
}

void fill_write(int index, uint32_t addr, uint8_t *bytes, uint32_t len) {
    for (uint32_t i = 0; i < len; i++) {
        bytes[i] = written_byte(index, addr + i);
    }
}

uint32_t frames_of(uint32_t len) {
    return (len + kFrameRoom - 1) / kFrameRoom;
}

void write_plain(int index, uint32_t len) {
    const uint32_t addr = new_address();
    const Buffer data(len);
    fill_write(index, addr, data.get(), len);
    (void)RawSockSendMsg(index, 1, 2, addr, kCodeWrite, data.get(), len);
}

void write_ack(int index, uint32_t len) {
    const uint32_t addr = new_address();
    const auto frames = static_cast<int32_t>(frames_of(len));
    const Buffer data(len);
    fill_write(index, addr, data.get(), len);
    ExpectedPosts posts(frames, frames);
    const Time stolen = stolen_time();
    const int result = RawSockSendMsgWithAck(0, index, 1, 2, addr, kCodeWriteAck, data.get(), len);
    posts.done(result == 0 ? frames : 1, frames);
    if (result != 0 && !was_rough(stolen)) {
        fail("an acknowledged write failed for no reason");
    }
}

bool has_refused(const Asked *known, uint8_t status) {
    return known != nullptr && std::find(known->refused_with.begin(), known->refused_with.end(),
                                         status) != known->refused_with.end();
}

void check_written(int index, uint32_t addr, uint32_t len, int result, uint8_t status,
                   bool was_quiet) {
    const Asked *known = asked(index, addr, kCodeWriteAck);
    if (result == 0 && status == 0 && !card_has_written(index, addr, len)) {
        fail("a write to 0x%x is reported as carried out, and is not", addr);
    }
    if (result == 0 && status != 0 && !has_refused(known, status)) {
        fail("a write to 0x%x is reported as refused with %u, and was not", addr, status);
    }
    if (result != 0 && known != nullptr && has_been_answered(*known) && !is_interrupted()) {
        fail("a write to 0x%x failed, and its answer had come", addr);
    }
    if (was_quiet && (result != 0 || status != 0)) {
        fail("a write to 0x%x failed for no reason: result %d, status %u", addr, result, status);
    }
}

void write_ack_wait(int index, uint32_t len, int32_t ticks) {
    const uint32_t addr = new_address();
    const auto frames = static_cast<int32_t>(frames_of(len));
    const Buffer data(len);
    fill_write(index, addr, data.get(), len);
    // One at the end, and one more for each frame that could not be sent.
    ExpectedPosts posts(1, 1 + frames);
    uint8_t status = 0x77;
    const Time start = now();
    const Time stolen = stolen_time();
    const int result = RawSockSendMsgWithAckWait(index, 1, 2, addr, kCodeWriteAck, data.get(), len,
                                                 &status, ticks);
    posts.done(1, result == 0 && frames == 1 ? 1 : 1 + frames);
    if (frames == 1) {
        check_written(index, addr, len, result, status, !was_rough(stolen));
    }
    check_duration(Form::kAckWait, start, ticks, stolen, frames_of(len));
    const Asked *known = asked(index, addr, kCodeWriteAck);
    if (frames == 1 && result != 0 && known != nullptr && is_unanswered(*known) &&
        world().checks_earliest_end) {
        check_not_too_early(start, ticks);
    }
    if (known != nullptr && known->transmissions > 1 && g_settings.send_fails_one_in == 0) {
        fail("a waiting write was sent %u times", known->transmissions);
    }
}

void read_without_waiting(int index, uint32_t len) {
    const uint32_t addr = new_address();
    auto *buffer = static_cast<uint8_t *>(heap_take(kReadRoom, "read buffer"));
    const size_t place = g_host.pending.size();
    g_host.pending.push_back(
        {.buffer = buffer, .index = index, .addr = addr, .len = len, .must_have_come = false});
    ExpectedPosts posts(1, 1);
    const Time stolen = stolen_time();
    const int result =
        RawSockSendMsgWithRead(0, index, 1, 2, addr, kCodeRead, len, buffer, nullptr);
    posts.done(1, 1);
    if (result != 0 && !was_rough(stolen)) {
        fail("a read failed for no reason");
    }
    g_host.pending[place].must_have_come = result == 0;
}

void read_wait(int index, uint32_t len, int32_t ticks) {
    const uint32_t addr = new_address();
    const Buffer buffer(kReadRoom);
    ExpectedPosts posts(1, 1);
    uint32_t came = 0xFFFF;
    const Time start = now();
    const Time stolen = stolen_time();
    const int result =
        RawSockSendMsgWithReadWait(index, 1, 2, addr, kCodeRead, len, buffer.get(), &came, ticks);
    posts.done(1, 1);
    check_duration(Form::kReadWait, start, ticks, stolen, 1);
    const Asked *known = asked(index, addr, kCodeRead);
    if (result == 0) {
        check_bytes(index, addr, buffer.get(), came);
        if (!has_sent(known, came)) {
            fail("a read of 0x%x has data that no card sent", addr);
        }
    } else if (!was_rough(stolen)) {
        fail("a read of 0x%x failed for no reason", addr);
    } else if (known != nullptr && has_been_answered(*known) && !is_interrupted()) {
        fail("a read of 0x%x failed, and its answer had come", addr);
    } else if (known != nullptr && is_unanswered(*known) && world().checks_earliest_end) {
        check_not_too_early(start, ticks);
    }
    if (known != nullptr && known->transmissions > 1 && g_settings.send_fails_one_in == 0) {
        fail("a waiting read was sent %u times", known->transmissions);
    }
}

// Which of several answers it took is not known: each byte is the card's or untouched.
void check_pending_read(const Pending &read) {
    const Asked *known = asked(read.index, read.addr, kCodeRead);
    const bool is_untouched = std::all_of(read.buffer, read.buffer + read.len,
                                          [](uint8_t byte) { return byte == kUntouched; });
    if (is_untouched && read.must_have_come && !was_rough(0)) {
        fail("a read of 0x%x has brought nothing", read.addr);
    }
    // An EAGAIN that a failed send has left behind doubles the thread's next frames.
    if (!was_rough(0) && g_settings.send_fails_one_in == 0 && known != nullptr &&
        known->transmissions > 1) {
        fail("a read of 0x%x was sent %u times for no reason", read.addr, known->transmissions);
    }
    if (!is_untouched && (known == nullptr || known->data_sent.empty())) {
        fail("a read of 0x%x has data that no card sent", read.addr);
    }
    for (uint32_t i = 0; !is_untouched && i < read.len; i++) {
        if (read.buffer[i] != card_byte(read.index, read.addr + i) &&
            (read.buffer[i] != kUntouched || known->odd_replies == 0)) {
            fail("wrong byte %02x at %u of a read of %u bytes from 0x%x", read.buffer[i], i,
                 read.len, read.addr);
        }
    }
}

void check_pending_reads() {
    for (const Pending &read : g_host.pending) {
        check_pending_read(read);
        heap_release(read.buffer);
    }
    g_host.pending.clear();
}

bool are_queues_empty() {
    bool are_empty = true;
    for (int i = 0; i < kInterfaces; i++) {
        for (int j = 0; j < kQueues; j++) {
            are_empty = are_empty && queue_length(i, j) == 0;
        }
    }
    return are_empty;
}

void check_queues() {
    for (int i = 0; i < kInterfaces; i++) {
        for (int j = 0; j < kQueues; j++) {
            if (queue_length(i, j) != 0 || queue_count(i, j) != 0) {
                fail("queue %d of interface %d holds %d records and counts %d, and all is done", j,
                     i, queue_length(i, j), queue_count(i, j));
            }
        }
    }
}

void check_posts() {
    const int posts = semaphore_value(&sem_test);
    if (posts < g_host.least_posts || posts > g_host.most_posts) {
        fail("%d posts, %d to %d were right", posts, g_host.least_posts, g_host.most_posts);
    }
}

} // namespace

void reset_host() {
    g_host.pending.clear(); // keeps its memory
    std::vector<Pending> pending = std::move(g_host.pending);
    g_host = {};
    g_host.pending = std::move(pending);
    g_host.next_address = 0x1000;
}

const char *name_of(Form form) {
    static const char *const kNames[] = {"plain write", "write with ack", "write, waiting", "read",
                                         "read, waiting"};
    return kNames[static_cast<int>(form)];
}

void start_host() {
    queue_init();
    (void)mem_init();
    (void)initTimer();
    (void)sem_init(&sem_test, 0, 0);
}

void link_up(int index) {
    constexpr pthread_t kNone = 0;
    Link &link = g_host.links[index];
    link = {.is_up = false, .receive = kNone, .check = kNone};
    (void)RawMsgModuleInit(index, &link.receive, &link.check);
    link.is_up = g_eth_init[index].flag == 1 && link.check != kNone;
    SIM_TELL("the link of interface %d is %s", index, link.is_up ? "up" : "not up");
}

void link_down(int index) {
    Link &link = g_host.links[index];
    link.is_up = false;
    for (const pthread_t thread : {link.receive, link.check}) {
        if (thread != 0) {
            (void)pthread_cancel(thread);
        }
    }
    for (const pthread_t thread : {link.receive, link.check}) {
        if (thread != 0) {
            (void)pthread_join(thread, nullptr);
        }
    }
    link.receive = 0;
    link.check = 0;
    (void)RawMsgModuleUnInit(index);
    SIM_TELL("the link of interface %d is down", index);
}

bool link_receives(int index) {
    return g_host.links[index].receive != 0;
}

bool link_is_up(int index) {
    return g_host.links[index].is_up;
}

uint32_t new_address() {
    g_host.next_address += 0x1000;
    return g_host.next_address;
}

void request(int index, Form form, uint32_t len, int32_t ticks) {
    SIM_TELL("-- %s on interface %d, %u bytes", name_of(form), index, len);
    switch (form) {
    case Form::kPlain:
        write_plain(index, len);
        break;
    case Form::kAck:
        write_ack(index, len);
        break;
    case Form::kAckWait:
        write_ack_wait(index, len, ticks);
        break;
    case Form::kRead:
        read_without_waiting(index, std::min(len, kReadRoom));
        break;
    case Form::kReadWait:
        read_wait(index, std::min(len, kReadRoom), ticks);
        break;
    }
    SIM_TELL("-- %s has returned", name_of(form));
}

void expect_posts(int32_t least, int32_t most) {
    g_host.least_posts += least;
    g_host.most_posts += most;
}

bool is_excused() {
    return g_host.is_excused || g_settings.faults_left != world().faults_at_start;
}

void excuse() {
    g_host.is_excused = true;
}

void excuse_inherited() {
    g_host.pending.clear();
    g_host.least_posts = 0;
    g_host.most_posts = 0;
    g_host.inherited_pool_blocks = pool_blocks_out();
    g_host.is_child = true;
    g_host.inherited_by_own_count = mem_handed_out();
    for (Link &link : g_host.links) {
        link = {};
    }
}

void settle() {
    constexpr int kLongest = 200; // x 10 ms: three transmissions, late frames, refusals
    calm_down();
    for (int i = 0; i < kLongest && (anything_to_come() || !are_queues_empty()); i++) {
        host_sleep(10);
    }
    host_sleep(1); // who has taken the last answer is still at work
    check_queues();
    check_posts();
    check_pending_reads();
    if (pool_blocks_out() != g_host.inherited_pool_blocks ||
        mem_handed_out() != g_host.inherited_by_own_count) {
        tell_pool_blocks_out();
        fail("%lld blocks of the pool are still out, %lld by its own count",
             static_cast<long long>(pool_blocks_out()), static_cast<long long>(mem_handed_out()));
    }
}

void finish(bool is_link_usable) {
    settle();
    g_host.is_excused = false;
    world().faults_at_start = 0;
    for (int index = 0; index < kInterfaces; index++) {
        for (int form = 0; is_link_usable && link_is_up(index) && form < kForms; form++) {
            request(index, static_cast<Form>(form), 4);
        }
    }
    settle();
    for (int index = 0; index < kInterfaces; index++) {
        if (link_is_up(index)) {
            link_down(index);
        }
    }
    (void)mem_uinit();
    if (heap_blocks_in_use() != 0 && !g_host.is_child) {
        fail("%lld blocks of the heap are lost", static_cast<long long>(heap_blocks_in_use()));
    }
    must_hold_no_locks();
    must_have_let_go_of_standard_output();
    if (!g_host.is_child) {
        must_have_closed_all();
    }
}

} // namespace sim
