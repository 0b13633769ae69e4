// Requests, replies, time-outs and send failures in any order.
//
// An input is a list of events, see play_event. The real send operations run on one thread: where a
// waiting one would sleep for its answer, the rest of the events is played until it has been woken,
// so waiting requests stand inside each other as they would on several threads. The link is this
// file: sendto keeps what a reply must repeat, and fails when told to.
//
// Whatever happened, in the end every request has ended and was reported exactly once, no data went
// anywhere but into the read that they answered, and the pool has everything back.
#include "eth_raw/eth_raw.h"
#include "mem/pool_counts.h"
#include "queue/record_holders.h"
#include "raw_msg/raw_msg.h"
#include "surroundings.h"
#include "timer/timer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <memory>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t kReadBuffer = 1400;
constexpr uint32_t kLargestReply = 1450 - 29; // what the receive buffer leaves for a payload
constexpr uint8_t kUntouched = 0xEE;          // fills read buffers; no reply carries it
constexpr int kDeepest = 4;                   // waiting requests inside each other
constexpr int kLongestWait = 8;               // ticks
constexpr int kEndRounds = 8;                 // a request has at most four time-outs
constexpr size_t kRequestSeq = 19;            // offsets in a request frame
constexpr size_t kRequestAddr = 22;

struct Sent {
    uint32_t addr;
    uint16_t seq;
};

using ReadBuffer = std::unique_ptr<uint8_t[]>; // exact: the address sanitizer sees a byte too many

// One run over one input.
struct Run {
    explicit Run(Input events) : input(events) {
    }

    Input input;
    std::vector<Sent> sent;
    std::vector<ReadBuffer> buffers; // of the reads that nobody waits for
    int expected_posts = 0;
    int depth = 0;
    bool in_completion = false; // the transaction layer's locks are held
    int next_error = 0;         // of the next send; EAGAIN means that it went out all the same
    bool answer_at_once = false;
    uint8_t tag = 0; // fills the data of the next reply
};

Run *g_run = nullptr;

using Offer = void (*)(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                       uint8_t *data);
constexpr std::array<Offer, 4> kOffers{AckRawMsg, AckWaitRawMsg, ReadRawMsg, ReadWaitRawMsg};

int index_of(uint8_t byte) {
    constexpr std::array<int, 8> indices{0, 0, 0, 0, 1, 2, 3, -1};
    return indices[byte % indices.size()];
}

uint32_t low_first(const uint8_t *from, size_t width) {
    uint32_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value |= static_cast<uint32_t>(from[i]) << (8 * i);
    }
    return value;
}

ReadBuffer new_read_buffer() {
    ReadBuffer bytes(new uint8_t[kReadBuffer]);
    std::fill_n(bytes.get(), kReadBuffer, kUntouched);
    return bytes;
}

void deliver(Run &run, Offer offer, int index, Sent to, uint8_t ack, uint32_t len) {
    run.tag = static_cast<uint8_t>((run.tag + 1) % kUntouched);
    const std::unique_ptr<uint8_t[]> data(new uint8_t[len]); // never null, that would be a time-out
    std::fill_n(data.get(), len, run.tag);
    const bool before = std::exchange(run.in_completion, true);
    offer(index, to.addr, ack, to.seq, len, data.get());
    run.in_completion = before;
}

void tick(Run &run, int index, int ticks) {
    for (int i = 0; i < ticks; i++) {
        catch_alarm(0);
    }
    timerUpdate(static_cast<uint32_t>(index), kQueueKinds);
    run.in_completion = true;
    CheckAckRawMsg(index);
    CheckAckWaitRawMsg(index);
    CheckReadRawMsg(index);
    CheckReadWaitRawMsg(index);
    run.in_completion = false;
}

// --- what the board does
// --------------------------------------------------------------------------

// Whatever was received came in one reply, and the bytes behind it are as they were.
void require_one_reply(const uint8_t *read_buf, uint32_t len) {
    for (uint32_t i = 0; i < kReadBuffer; i++) {
        require(read_buf[i] == (i < len ? read_buf[0] : kUntouched),
                "read data are those of one reply, as long as it was");
    }
    require(len == 0 || read_buf[0] != kUntouched, "a read that succeeded has data");
}

void send_write(Run &run, int index, uint32_t addr, uint32_t len) {
    const std::vector<uint8_t> data(len, 0x5A);
    run.expected_posts += 1;
    (void)RawSockSendOneMsgWithAck(0, index, 1, 1, addr, 0x11, data.data(), len);
}

void send_read(Run &run, int index, uint32_t addr, uint32_t len) {
    run.buffers.push_back(new_read_buffer());
    run.expected_posts += 1;
    uint32_t ignored = 0;
    (void)RawSockSendMsgWithRead(0, index, 1, 1, addr, 0, len, run.buffers.back().get(), &ignored);
}

void send_waiting_write(Run &run, int index, uint32_t addr, uint32_t len) {
    constexpr uint8_t kNobodyAnswered = 0xFF;
    constexpr uint8_t kNothingSent = 0x77; // a status that the replies below avoid
    const std::vector<uint8_t> data(len, 0x5A);
    const int ticks = 1 + run.input.byte() % kLongestWait;
    uint8_t ack = kNothingSent;
    const int result =
        RawSockSendOneMsgWithAckWait(index, 1, 1, addr, 0x11, data.data(), len, &ack, ticks);
    if (ack == kNothingSent) {
        require(result == -1, "a write that was not sent fails");
        run.expected_posts += 1;
    } else {
        require(result == (ack == kNobodyAnswered ? -1 : 0), "a write succeeds if it was answered");
    }
}

void send_waiting_read(Run &run, int index, uint32_t addr, uint32_t len) {
    const ReadBuffer read_buf = new_read_buffer();
    const int ticks = 1 + run.input.byte() % kLongestWait;
    uint32_t received = 0;
    run.expected_posts += 1;
    const int result =
        RawSockSendMsgWithReadWait(index, 1, 1, addr, 0, len, read_buf.get(), &received, ticks);
    require((result == 0) == (received > 0 && received <= kReadBuffer),
            "a read succeeds if it brought data that fit");
    require_one_reply(read_buf.get(), result == 0 ? received : 0);
}

// --- events
// ---------------------------------------------------------------------------------------

void play_request(Run &run, uint8_t kind) {
    const int index = index_of(run.input.byte());
    const uint32_t addr =
        run.input.byte() % 4 * 0x1000U;           // few, so that requests resemble each other
    const uint32_t len = run.input.word() % 1402; // 0 and 1401 are refused
    if (kind >= 2 && run.depth >= kDeepest) {
        kind -= 2;
    }
    switch (kind) {
    case 0:
        send_write(run, index, addr, len);
        break;
    case 1:
        send_read(run, index, addr, len);
        break;
    case 2:
        send_waiting_write(run, index, addr, len);
        break;
    default:
        send_waiting_read(run, index, addr, len);
        break;
    }
}

uint8_t status_of(uint8_t byte) {
    constexpr std::array<uint8_t, 8> statuses{0, 0, 0, 0, 0, 1, 0x80, 0xFF};
    return statuses[byte % statuses.size()];
}

// To one of the last requests, in any queue as a confused card might.
void play_reply(Run &run) {
    const uint8_t which = run.input.byte();
    Sent to{};
    if (!run.sent.empty()) {
        to = run.sent[run.sent.size() - 1 - which % std::min<size_t>(run.sent.size(), 16)];
    }
    const uint8_t how = run.input.byte();
    const Offer offer = kOffers[how % kOffers.size()];
    const int index = index_of(static_cast<uint8_t>(how >> 2));
    const uint8_t ack = status_of(static_cast<uint8_t>(how >> 5));
    deliver(run, offer, index, to, ack, run.input.word() % (kLargestReply + 1));
}

void play_stray_reply(Run &run) {
    const uint8_t how = run.input.byte();
    const Sent to{.addr = run.input.long_word(), .seq = run.input.word()};
    deliver(run, kOffers[how % kOffers.size()], index_of(static_cast<uint8_t>(how >> 2)), to,
            status_of(static_cast<uint8_t>(how >> 5)), run.input.word() % (kLargestReply + 1));
}

void play_event(Run &run) {
    const uint8_t event = run.input.byte() % 9;
    switch (event) {
    case 4:
        play_reply(run);
        break;
    case 5: {
        const uint8_t what = run.input.byte();
        tick(run, index_of(what), what >> 3);
        break;
    }
    case 6:
        play_stray_reply(run);
        break;
    case 7: // a queue is full and gets emptied
        (void)queue_empty(run.input.byte() % kQueueInterfaces, run.input.byte() % kQueueKinds);
        break;
    case 8: { // the link fails, or the reply is faster than the return from the send
        constexpr std::array<int, 3> errors{0, EIO, EAGAIN};
        const uint8_t what = run.input.byte();
        run.next_error = errors[what % errors.size()];
        run.answer_at_once = what >= 0x80;
        break;
    }
    default: // 0 to 3
        play_request(run, event);
        break;
    }
}

// Silence from now on; long enough for the longest request.
void let_everything_time_out(Run &run) {
    for (int round = 0; round < kEndRounds; round++) {
        for (int index = 0; index < kQueueInterfaces; index++) {
            tick(run, index, kLongestWait);
        }
    }
}

// A sender that still waits goes on playing until it is woken.
void wait_for(Run &run, sem_t *semaphore) {
    run.depth += 1;
    while (sem_trywait(semaphore) != 0) {
        if (run.input.is_empty()) {
            let_everything_time_out(run);
            require(sem_trywait(semaphore) == 0, "a waiting request ends");
            break;
        }
        play_event(run);
    }
    require(sem_trywait(semaphore) != 0, "a waiting request is woken once");
    run.depth -= 1;
    errno = 0; // a wait that ended well says nothing
}

ssize_t send_frame(Run &run, const uint8_t *frame, size_t size) {
    const Sent sent{.addr = low_first(frame + kRequestAddr, 4),
                    .seq = static_cast<uint16_t>(low_first(frame + kRequestSeq, 2))};
    run.sent.push_back(sent);
    errno = std::exchange(run.next_error, 0);
    if (errno == EIO) {
        return -1;
    }
    const bool at_once = std::exchange(run.answer_at_once, false);
    if (at_once && !run.in_completion) { // a resend holds the locks that a reply takes
        const int error = errno;         // the send looks at it next
        // On a thread of its own, as in life: the sender still holds the link's send lock.
        std::thread([&] {
            for (const Offer offer : kOffers) {
                deliver(run, offer, 0, sent, 0, 8);
            }
        }).join();
        errno = error;
    }
    return static_cast<ssize_t>(size);
}

void set_up_once() {
    static const bool is_done = [] {
        queue_init();
        (void)sem_init(&sem_test, 0, 0);
        for (eth_init &link : g_eth_init) {
            link.flag = 1; // open, as far as the sends can tell
            link.sock_fd = -1;
            (void)pthread_mutex_init(&link.send_lock, nullptr);
        }
        return true;
    }();
    (void)is_done;
}

int take_posts() {
    int posts = 0;
    while (sem_trywait(&sem_test) == 0) {
        posts += 1;
    }
    return posts;
}

} // namespace

// Visible outside: the linker wraps the calls in shared libraries' names, too.
#pragma GCC visibility push(default)

extern "C" {

ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                      socklen_t to_size);
int __real_sem_wait(sem_t *semaphore);
int __wrap_sem_wait(sem_t *semaphore);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);

ssize_t __wrap_sendto(int /*fd*/, const void *data, size_t size, int /*flags*/,
                      const sockaddr * /*to*/, socklen_t /*to_size*/) {
    return send_frame(*g_run, static_cast<const uint8_t *>(data), size);
}

int __wrap_sem_wait(sem_t *semaphore) {
    if (g_run == nullptr) {
        return __real_sem_wait(semaphore); // the fuzzer's own
    }
    wait_for(*g_run, semaphore);
    return 0;
}

int __wrap_clock_nanosleep(clockid_t /*clock*/, int /*flags*/, const timespec * /*until*/,
                           timespec * /*rest*/) {
    return 0; // nothing here gets better by waiting
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    set_up_once();
    const int64_t handed_out = mem_handed_out();
    Run run(Input(data, size));
    g_run = &run;
    while (!run.input.is_empty()) {
        play_event(run);
    }
    let_everything_time_out(run);
    g_run = nullptr;

    require(take_posts() == run.expected_posts, "every operation is reported once");
    require(mem_handed_out() == handed_out, "the pool has everything back");
    for (const ReadBuffer &buffer : run.buffers) {
        const uint8_t *start = buffer.get();
        const uint8_t *behind = std::find(start, start + kReadBuffer, kUntouched);
        require_one_reply(start, static_cast<uint32_t>(behind - start));
    }
    return 0;
}

} // extern "C"

#pragma GCC visibility pop
