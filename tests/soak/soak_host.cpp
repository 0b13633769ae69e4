// soak_host - a host process that keeps all three links busy with all forms of send, while two of
// them go down and up.
//
//   soak_host SECONDS SEED
//
// Each of eight threads writes and reads regions of its own and knows what may stand in them. At
// the end it prints one line for each link and one for the process, as JSON, and what was wrong; 0
// when nothing was, 1 otherwise, 2 for a wrong command line or outside the test bed.
#include "region.h"

#include "tests/system/bed/all_processors.h"

#include "eth_raw/eth_raw.h"
#include "eth_raw/frame_layout.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/counters.h"
#include "raw_msg/raw_msg.h"
#include "timer/timer.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <net/if.h>
#include <netpacket/packet.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using soak::Bytes;
using soak::Random;
using soak::Region;
using Clock = std::chrono::steady_clock;

constexpr char kMarker[] = "ruktestbed"; // stands only in the test bed's namespace
constexpr int kWrongUse = 2;
constexpr int kLinks = MAX_ETH;
constexpr int kThreads = 8;
constexpr int kRegions = 24; // of a thread on a link
constexpr uint32_t kFirstAddr = 0x40000000;
constexpr uint32_t kRefusedAddr = 0x70000000; // here the card refuses everything
constexpr uint8_t kRefusal = 0x21;
constexpr uint16_t kModel = 1;
constexpr uint8_t kSlot = 3;
constexpr int32_t kTicks = 20;   // 1.8 s: no card is so late, whatever else the machine does
constexpr auto kLastResend = 3s; // ten times what a request without waiting takes to its end
constexpr auto kPace = 1ms;      // between two calls of a thread: the machine has other work, too
constexpr auto kEndOfAll = 20s;
constexpr uint8_t kUntouched = 0xA5; // in a buffer that no answer has reached

// --- the links ----------------------------------------------------------------------------------

// Odd while the link is on its way down and up.
std::array<std::atomic<uint32_t>, kLinks> g_disturbances{};
std::atomic<bool> g_stop{false};
std::atomic<uint64_t> g_flaps{0};

struct Tally {
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> failures{0};           // of waiting calls on an undisturbed link
    std::atomic<uint64_t> disturbed_failures{0}; // all others
    std::atomic<uint64_t> unanswered_reads{0};   // without waiting, undisturbed
    std::atomic<uint64_t> refusals{0};
};
std::array<Tally, kLinks> g_tallies;
std::atomic<uint64_t> g_posts_due{0};
std::atomic<uint64_t> g_posts_possible{
    0}; // above these: a write that was not even sent posts twice
std::array<std::atomic<uint64_t>, kThreads> g_progress{};

std::mutex g_wrong_lock;
std::vector<std::string> g_wrong;

void wrong(const std::string &what) {
    const std::lock_guard guard(g_wrong_lock);
    if (g_wrong.size() < 20) {
        g_wrong.push_back(what);
    }
}

bool change_flags(int index, bool up) {
    ifreq request{};
    (void)snprintf(request.ifr_name, sizeof request.ifr_name, "eth%d", index);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool done = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags =
        static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    done = done && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    for (int i = 0; up && done && i < 300; i++) {
        if (ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0) {
            break;
        }
        std::this_thread::sleep_for(10ms);
    }
    (void)close(fd);
    return done;
}

// The first link stays up: what others send over it has no answer to tell a loss.
void flap(uint32_t seed) {
    Random random(seed);
    while (!g_stop) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500 + random.below(3000)));
        const int index = 1 + static_cast<int>(random.below(2));
        auto &disturbances = g_disturbances[static_cast<size_t>(index)];
        disturbances += 1;
        if (!change_flags(index, false)) {
            wrong("link " + std::to_string(index) + " cannot be taken down");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random.below(300)));
        if (!change_flags(index, true)) {
            wrong("link " + std::to_string(index) + " cannot be brought up");
        }
        std::this_thread::sleep_for(100ms);
        disturbances += 1;
        g_flaps += 1;
    }
}

// --- a thread -----------------------------------------------------------------------------------

struct Place {
    Region region;
    int index;
    Clock::time_point quiet_from{}; // no request without waiting is under way from here on
};

// A read without waiting: its buffer is the library's until the read has surely ended.
struct Pending {
    Place *place;
    std::unique_ptr<std::array<uint8_t, kMaxPayload>> buf;
    uint32_t disturbances;
    Clock::time_point due;
};

class Sender {
public:
    Sender(int number, uint32_t seed) : number_(number), random_(seed) {
        for (int index = 0; index < kLinks; index++) {
            for (uint32_t i = 0; i < kRegions; i++) {
                const uint32_t addr = kFirstAddr + (static_cast<uint32_t>(index) << 24) +
                                      (static_cast<uint32_t>(number) << 20) + (i << 12);
                const uint32_t len = i % 4 == 0 ? kMaxPayload : 1 + random_.below(200);
                places_.push_back({Region(addr, len), index});
            }
        }
    }

    void run() {
        while (!g_stop) {
            const auto now = Clock::now();
            check_pending(now); // before a write makes known what stands there
            step(now);
            g_progress[static_cast<size_t>(number_)] += 1;
            std::this_thread::sleep_for(kPace);
        }
        std::this_thread::sleep_for(kLastResend);
        check_pending(Clock::now() + kLastResend);
    }

private:
    // The third link has room for the blocks of another process.
    Place &any_place() {
        const uint32_t dice = random_.below(20);
        const uint32_t index = dice < 9 ? 0 : dice < 19 ? 1 : 2;
        return places_[index * kRegions + random_.below(kRegions)];
    }

    void step(Clock::time_point now) {
        Place &place = any_place();
        const bool is_quiet = now >= place.quiet_from;
        Tally &tally = g_tallies[static_cast<size_t>(place.index)];
        tally.calls += 1;
        switch (random_.below(12)) {
        case 0:
            ask_what_is_refused(place.index);
            break;
        case 1:
        case 2:
            write_plain(place, is_quiet);
            break;
        case 3:
        case 4:
            write_with_ack(place, is_quiet);
            break;
        case 5:
        case 6:
        case 7:
            write_and_wait(place, is_quiet);
            break;
        case 8:
        case 9:
            read_without_waiting(place, is_quiet);
            break;
        default:
            read_and_wait(place, is_quiet);
        }
    }

    static uint32_t disturbances(int index) {
        return g_disturbances[static_cast<size_t>(index)];
    }

    // A call has failed: was the link as it should be, from its begin until now?
    static void count_failure(int index, uint32_t before) {
        Tally &tally = g_tallies[static_cast<size_t>(index)];
        const bool is_disturbed = before % 2 != 0 || disturbances(index) != before;
        (is_disturbed ? tally.disturbed_failures : tally.failures) += 1;
    }

    static void write_plain(Place &place, bool is_quiet) {
        if (!is_quiet) {
            return;
        }
        const Bytes data = place.region.next_content();
        if (RawSockSendMsg(place.index, kModel, kSlot, place.region.addr(), RAW_MSG_CODE_WRITE,
                           data.data(), place.region.len()) != 0) {
            wrong("a plain write failed");
        }
    }

    // A resend may come late and must not overtake a newer write.
    static void write_with_ack(Place &place, bool is_quiet) {
        if (!is_quiet) {
            return;
        }
        const Bytes data = place.region.next_content();
        place.quiet_from = Clock::now() + kLastResend;
        g_posts_due += 1;
        const uint32_t before = disturbances(place.index);
        if (RawSockSendMsgWithAck(0, place.index, kModel, kSlot, place.region.addr(),
                                  RAW_MSG_CODE_WRITE_ACK, data.data(), place.region.len()) != 0) {
            count_failure(place.index, before);
        }
    }

    static void write_and_wait(Place &place, bool is_quiet) {
        if (!is_quiet) {
            return;
        }
        const Bytes data = place.region.next_content();
        const uint32_t before = disturbances(place.index);
        uint8_t ack = kUntouched;
        g_posts_due += 1;
        const int result = RawSockSendMsgWithAckWait(place.index, kModel, kSlot,
                                                     place.region.addr(), RAW_MSG_CODE_WRITE_ACK,
                                                     data.data(), place.region.len(), &ack, kTicks);
        if (result == 0 && ack == 0) {
            place.region.confirm();
        } else if (result == 0) {
            wrong("a write was refused with " + std::to_string(ack));
        } else {
            g_posts_possible += 1;
            count_failure(place.index, before);
        }
    }

    void read_and_wait(Place &place, bool is_quiet) {
        std::array<uint8_t, kMaxPayload> buf{};
        const uint32_t before = disturbances(place.index);
        uint32_t received = 0;
        g_posts_due += 1;
        if (RawSockSendMsgWithReadWait(place.index, kModel, kSlot, place.region.addr(),
                                       RAW_MSG_CODE_READ, place.region.len(), buf.data(), &received,
                                       kTicks) != 0) {
            count_failure(place.index, before);
            return;
        }
        const std::span<const uint8_t> got(buf.data(), received);
        if (is_quiet ? !place.region.take(got) : !place.region.may_hold(got)) {
            wrong_bytes("waiting read", place);
        }
    }

    void read_without_waiting(Place &place, bool is_quiet) {
        if (!is_quiet) {
            return;
        }
        Pending pending{&place, std::make_unique<std::array<uint8_t, kMaxPayload>>(),
                        disturbances(place.index), Clock::now() + kLastResend};
        pending.buf->fill(kUntouched);
        place.quiet_from = pending.due;
        g_posts_due += 1;
        uint32_t unused = 0;
        if (RawSockSendMsgWithRead(0, place.index, kModel, kSlot, place.region.addr(),
                                   RAW_MSG_CODE_READ, place.region.len(), pending.buf->data(),
                                   &unused) != 0) {
            count_failure(place.index, pending.disturbances);
            return;
        }
        pending_.push_back(std::move(pending));
    }

    void check_pending(Clock::time_point now) {
        while (!pending_.empty() && pending_.front().due <= now) {
            const Pending &read = pending_.front();
            const std::span<const uint8_t> got(read.buf->data(), read.place->region.len());
            if (std::ranges::all_of(got, [](uint8_t byte) { return byte == kUntouched; })) {
                if (disturbances(read.place->index) == read.disturbances &&
                    read.disturbances % 2 == 0) {
                    g_tallies[static_cast<size_t>(read.place->index)].unanswered_reads += 1;
                }
            } else if (!read.place->region.may_hold(got)) {
                wrong_bytes("read without waiting", *read.place);
            }
            pending_.pop_front();
        }
    }

    // Both waiting forms: the card says no, and nothing is read or written.
    void ask_what_is_refused(int index) {
        const uint32_t before = disturbances(index);
        const uint32_t addr = kRefusedAddr + random_.below(1000);
        std::array<uint8_t, kMaxPayload> buf{};
        g_posts_due += 1;
        if (random_.below(2) == 0) {
            uint8_t ack = kUntouched;
            const int result = RawSockSendMsgWithAckWait(
                index, kModel, kSlot, addr, RAW_MSG_CODE_WRITE_ACK, buf.data(), 4, &ack, kTicks);
            if (result == 0 && ack == kRefusal) {
                g_tallies[static_cast<size_t>(index)].refusals += 1;
            } else if (result == 0) {
                wrong("a write that is refused was answered with " + std::to_string(ack));
            } else {
                g_posts_possible += 1;
                count_failure(index, before);
            }
            return;
        }
        uint32_t received = 0;
        const int result = RawSockSendMsgWithReadWait(index, kModel, kSlot, addr, RAW_MSG_CODE_READ,
                                                      4, buf.data(), &received, kTicks);
        if (result == 0) {
            wrong("a read that is refused succeeded");
        } else if (received == 0) {
            g_tallies[static_cast<size_t>(index)].refusals += 1; // or lost: the same to a reader
        }
    }

    void wrong_bytes(const char *form, const Place &place) const {
        char text[128];
        (void)snprintf(text, sizeof text, "wrong bytes: %s of 0x%08x, %u bytes, link %d, thread %d",
                       form, place.region.addr(), place.region.len(), place.index, number_);
        wrong(text);
    }

    int number_;
    Random random_;
    std::vector<Place> places_;
    std::deque<Pending> pending_;
};

// --- the process --------------------------------------------------------------------------------

struct Link {
    pthread_t receive = {};
    pthread_t check = {};
};

bool bring_up(std::array<Link, kLinks> &links) {
    queue_init();
    (void)mem_init();
    (void)sem_init(&sem_test, 0, 0);
    if (initTimer() != 0) {
        return false;
    }
    for (int index = 0; index < kLinks; index++) {
        Link &link = links[static_cast<size_t>(index)];
        (void)RawMsgModuleInit(index, &link.receive, &link.check);
        if (link.receive == pthread_t{} || link.check == pthread_t{}) {
            return false;
        }
    }
    std::this_thread::sleep_for(100ms);
    bed::use_all_processors();
    return true;
}

void take_down(const std::array<Link, kLinks> &links) {
    for (int index = 0; index < kLinks; index++) {
        const Link &link = links[static_cast<size_t>(index)];
        for (const pthread_t thread : {link.receive, link.check}) {
            (void)pthread_cancel(thread);
            (void)pthread_join(thread, nullptr);
        }
        (void)RawMsgModuleUnInit(index);
    }
    (void)mem_uinit();
}

// As PACKET_STATISTICS gives it; the kernel's own header does not go with the C library's.
unsigned kernel_drops(int index) {
    unsigned packets_and_drops[2] = {};
    socklen_t size = sizeof packets_and_drops;
    (void)getsockopt(g_eth_init[index].sock_fd, SOL_PACKET, PACKET_STATISTICS, packets_and_drops,
                     &size);
    return packets_and_drops[1];
}

void check_the_rest() {
    ruk_counter_set counters{};
    counters.size = sizeof counters;
    (void)ruk_counters(&counters);
    for (const auto &queues : counters.queued) {
        for (const uint64_t queued : queues) {
            if (queued != 0) {
                wrong(std::to_string(queued) + " requests are left in a queue");
            }
        }
    }
    if (counters.pool_in_use != 0) {
        wrong(std::to_string(counters.pool_in_use) + " blocks of the pool are left");
    }
    int posts = 0;
    (void)sem_getvalue(&sem_test, &posts);
    const auto found = static_cast<uint64_t>(posts);
    if (found < g_posts_due || found > g_posts_due + g_posts_possible) {
        wrong(std::to_string(found) + " posts, due were " + std::to_string(g_posts_due) + " to " +
              std::to_string(g_posts_due + g_posts_possible));
    }
}

void report() {
    ruk_counter_set counters{};
    counters.size = sizeof counters;
    (void)ruk_counters(&counters);
    for (int index = 0; index < kLinks; index++) {
        const auto i = static_cast<size_t>(index);
        const Tally &tally = g_tallies[i];
        printf("{\"link%d_calls\":%llu,\"link%d_failures\":%llu,\"link%d_disturbed\":%llu,"
               "\"link%d_unanswered_reads\":%llu,\"link%d_refusals\":%llu,"
               "\"link%d_kernel_drops\":%u,\"link%d_resends\":%llu,\"link%d_timeouts\":%llu}\n",
               index, static_cast<unsigned long long>(tally.calls), index,
               static_cast<unsigned long long>(tally.failures), index,
               static_cast<unsigned long long>(tally.disturbed_failures), index,
               static_cast<unsigned long long>(tally.unanswered_reads), index,
               static_cast<unsigned long long>(tally.refusals), index, kernel_drops(index), index,
               static_cast<unsigned long long>(counters.resends[i]), index,
               static_cast<unsigned long long>(counters.timeouts[i]));
    }
    printf("{\"flaps\":%llu,\"posts\":%llu}\n", static_cast<unsigned long long>(g_flaps),
           static_cast<unsigned long long>(g_posts_due));
}

// Every call has to return. Without this the process would wait for a thread for ever.
void watch_the_end(const std::atomic<int> &running) {
    const auto give_up = Clock::now() + kEndOfAll;
    while (running > 0 && Clock::now() < give_up) {
        std::this_thread::sleep_for(10ms);
    }
    if (running > 0) {
        printf("wrong: %d threads are still in a call\n", running.load());
        (void)fflush(stdout);
        _exit(1);
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3 || if_nametoindex(kMarker) == 0) {
        (void)fprintf(stderr, "usage: soak_host SECONDS SEED, inside scripts/testbed\n");
        return kWrongUse;
    }
    const auto seed = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    std::array<Link, kLinks> links;
    if (!bring_up(links)) {
        printf("wrong: the links do not come up\n");
        return 1;
    }
    printf("soaking\n");
    (void)fflush(stdout);
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&running, i, seed] {
            Sender(i, seed + static_cast<uint32_t>(i)).run();
            running -= 1;
        });
    }
    std::thread flapper(flap, seed);
    std::this_thread::sleep_for(std::chrono::seconds(atoi(argv[1])));
    g_stop = true;
    flapper.join();
    watch_the_end(running);
    for (std::thread &thread : threads) {
        thread.join();
    }
    check_the_rest();
    report();
    take_down(links);
    for (const std::string &text : g_wrong) {
        printf("wrong: %s\n", text.c_str());
    }
    return g_wrong.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
