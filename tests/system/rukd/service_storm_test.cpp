// Four processes that ask the service for everything at once, over a link that loses replies.
#include "tests/system/bed/service.h"

#include "tests/board/process.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <new>
#include <random>
#include <sys/mman.h>

namespace bed {

namespace {

constexpr int kClients = 4;
constexpr uint8_t kFirstModule = 0x50;
constexpr uint32_t kRegion = 0x10000;
constexpr uint8_t kNearSlot = 1; // waits half as long for a lost reply

// A sanitizer keeps freed memory for a while: its growth says nothing about the service's. What
// else it finds it finds early.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsOnlyOurs = false;
constexpr int kRequests = 500; // of each client
#else
constexpr bool kMemoryIsOnlyOurs = true;
constexpr int kRequests = 2'000;
#endif
constexpr int64_t kGrowth =
    512 * 1024; // bytes: pool blocks and stacks that the first requests touch

// What the clients report to the test, in memory that the processes share.
struct Outcome {
    std::atomic<int> replies;
    std::atomic<int> failures; // replies that say -1
    std::atomic<int> errors;   // what must not happen; told on standard error
};

class SharedOutcome {
public:
    SharedOutcome()
        : place_(mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                      -1, 0)),
          outcome_(new (place_) Outcome{}) {
    }
    SharedOutcome(const SharedOutcome &) = delete;
    SharedOutcome &operator=(const SharedOutcome &) = delete;
    ~SharedOutcome() {
        (void)munmap(place_, sizeof(Outcome));
    }
    Outcome *operator->() const {
        return outcome_;
    }

private:
    void *place_;
    Outcome *outcome_;
};

// One client: what it has written is what it must read, for only replies are lost.
class Asker {
public:
    Asker(const std::string &sockets, int number, const SharedOutcome &outcome)
        : client_(sockets, static_cast<uint8_t>(kFirstModule + number)), outcome_(outcome),
          base_(0x20000000 + static_cast<uint32_t>(number) * kRegion),
          low_base_(0x100000 + static_cast<uint32_t>(number) * kRegion),
          random_(static_cast<uint32_t>(number)) {
    }

    int run() {
        for (int i = 0; i < kRequests; i++) {
            seq_ = static_cast<uint16_t>(i * 7 + 65000); // wraps on the way
            ask();
        }
        greet(); // a reply too many would come before this one's
        return outcome_->errors == 0 ? 0 : 1;
    }

private:
    void ask() {
        const uint32_t dice = below(100);
        if (dice < 30) {
            read();
        } else if (dice < 45) {
            write_acknowledged();
        } else if (dice < 70) {
            write(base_, {.code = 0x01, .slot = 2});
        } else if (dice < 85) {
            write(low_base_, {.code = 0x02, .slot = kNearSlot}); // goes out plain
        } else if (dice < 90) {
            greet();
        } else if (dice < 95) {
            send({.code = 0x33, .seq = seq_}); // no such request
        } else {
            send({.class_ = 29, .code = 0x00, .seq = seq_, .len = 4}); // not for the service
        }
    }

    void read() {
        const uint32_t base = below(2) == 0 ? base_ : low_base_;
        const uint32_t addr = base + below(kRegion - 1400);
        const auto len = static_cast<uint16_t>(1 + below(below(8) == 0 ? 1400 : 64));
        send({.code = 0x00, .slot = kNearSlot, .seq = seq_, .addr = addr, .len = len});
        const Message reply = expect_reply(0x00, addr);
        if (reply.result == 0 && (reply.data_len != len || reply.data.size() != len + 2U ||
                                  part(reply.data, 0, len) != expected(addr, len))) {
            error("read wrong data");
        }
    }

    void write_acknowledged() {
        const uint32_t addr = write(base_, {.code = 0x02, .slot = 2});
        (void)expect_reply(0x02, addr);
    }

    uint32_t write(uint32_t base, Message message) {
        message.seq = seq_;
        message.addr = base + below(kRegion - 64);
        message.data = Bytes(1 + below(64));
        for (size_t i = 0; i < message.data.size(); i++) {
            message.data[i] = static_cast<uint8_t>(random_());
            memory_[message.addr + static_cast<uint32_t>(i)] = message.data[i];
        }
        message.len = static_cast<uint16_t>(message.data.size());
        send(message);
        return message.addr;
    }

    void greet() {
        send({.code = kGreetingCode, .seq = seq_});
        const Bytes reply = client_.receive();
        if (reply.size() != 112 || from_bytes(reply).code != kGreetingCode) {
            error("no greeting");
        }
    }

    Message expect_reply(uint8_t code, uint32_t addr) {
        const Bytes bytes = client_.receive();
        if (bytes.size() < 40) {
            error("no reply");
            return {.result = 1};
        }
        Message reply = from_bytes(bytes);
        if (reply.seq != seq_ || reply.code != code || reply.addr != addr ||
            reply.aptid != kServiceAddress || reply.src != 0x3B) {
            error("a reply to something else");
        }
        outcome_->replies++;
        outcome_->failures += reply.result == 0xFFFFFFFF ? 1 : 0;
        return reply;
    }

    void send(const Message &message) {
        if (!client_.send(message)) {
            error("the service took no message");
        }
    }

    Bytes expected(uint32_t addr, uint32_t len) {
        Bytes bytes(len);
        for (uint32_t i = 0; i < len; i++) {
            const auto found = memory_.find(addr + i);
            bytes[i] = found != memory_.end() ? found->second : 0;
        }
        return bytes;
    }

    uint32_t below(uint32_t limit) {
        return static_cast<uint32_t>(random_() % limit);
    }

    void error(const char *what) {
        (void)fprintf(stderr, "client %x, seq %d: %s\n", client_.address(), seq_, what);
        outcome_->errors++;
    }

    Client client_;
    const SharedOutcome &outcome_;
    uint32_t base_;
    uint32_t low_base_;
    std::mt19937 random_;
    uint16_t seq_ = 0;
    std::map<uint32_t, uint8_t> memory_;
};

class ServiceStorm : public SystemTest {
protected:
    void ask_from_all_clients() {
        std::vector<test::Child> clients;
        for (int k = 0; k < kClients; k++) {
            clients.emplace_back([this, k] { return Asker(sockets, k, outcome).run(); });
        }
        for (test::Child &client : clients) {
            EXPECT_EQ(client.wait(), 0);
        }
    }

    Directory directory;
    std::string sockets = directory.path("m");
    SharedOutcome outcome;
};

TEST_F(ServiceStorm, AnswersEveryRequestOfFourProcessesOnce) {
    Card card({"--drop", "2"}, Card::Priority::kRealTime);
    Service service(sockets);
    {
        const Client first(sockets, 0x60);
        expect_greeting(first);
    }
    const int64_t before = service.resident_bytes();
    ask_from_all_clients();
    const int64_t after = service.resident_bytes();
    (void)printf(
        "rukd: %lld KiB before, %lld KiB after %d requests; %d replies, %d of them failures\n",
        static_cast<long long>(before / 1024), static_cast<long long>(after / 1024),
        kClients * kRequests, outcome->replies.load(), outcome->failures.load());
    EXPECT_EQ(outcome->errors, 0);
    EXPECT_GT(outcome->failures, kRequests / 100);
    if (kMemoryIsOnlyOurs) {
        EXPECT_LT(after - before, kGrowth);
    }
    service.stop();
    const Counters counters = card.stop();
    EXPECT_EQ(outcome->failures, counters["unanswered_requests"]);
}

} // namespace

} // namespace bed
