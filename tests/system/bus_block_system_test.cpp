// Blocks between host processes, through the card's memory: what arrives, what is lost, and who has
// the bus.
#include "tests/system/bed/bed.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <memory>
#include <sched.h>
#include <thread>

namespace bed {

namespace {

constexpr size_t kLargestBlock = 64 << 20;
constexpr size_t kLargestPiece = 8000;
constexpr Milliseconds kLongTransfer = 120s; // without optimisation, on a busy machine
constexpr auto kStillWaiting = 200ms;        // long enough to send some thousand frames

// Bytes without a period that a piece could be shifted by; another seed, other bytes.
Bytes block(size_t size, uint32_t seed) {
    Bytes bytes(size);
    uint32_t state = seed;
    for (uint8_t &byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

// Faster than content_of for large files.
bool holds(const std::string &path, const Bytes &expected) {
    std::ifstream file(path, std::ios::binary);
    Bytes content(expected.size() + 1);
    file.read(reinterpret_cast<char *>(content.data()),
              static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<size_t>(file.gcount()));
    return content == expected;
}

Launch host(const Words &steps) {
    Words argv = {BUS_BLOCK_HOST};
    argv.insert(argv.end(), steps.begin(), steps.end());
    return {.argv = argv};
}

// Traffic of others on the cable: a read gives up a lost answer only after other frames.
class Traffic {
public:
    Traffic() : thread_([this] { run(); }) {
    }
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;
    ~Traffic() {
        stopping_ = true;
        thread_.join();
    }

private:
    // Ten such frames end an attempt and ten attempts the read: the card may stand still for 2 s.
    static constexpr auto kPace = 20ms;

    void run() {
        // Large ones: few of them fit a socket that nobody reads.
        Bytes frame = from_hex("020000000001 020000000002 88b5");
        frame.resize(kLargestPiece);
        while (!stopping_) {
            end_.send(frame);
            std::this_thread::sleep_for(kPace);
        }
    }

    CardEnd end_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

class BusBlock : public SystemTest {
protected:
    // The semaphore's key is one for the whole machine: each test has a place of its own for it.
    void SetUp() override {
        SystemTest::SetUp();
        ASSERT_EQ(unshare(CLONE_NEWIPC), 0);
    }
    [[nodiscard]] std::string file(const std::string &name, const Bytes &content) const {
        return directory.file(name, content);
    }
    Directory directory;
};

// --- blocks -------------------------------------------------------------------------------------

TEST_F(BusBlock, GoesOutInPiecesAndComesBack) {
    for (const size_t size : {1U, 63U, 64U, 65U, 8000U, 16001U}) {
        const Bytes data = block(size, 1);
        const std::string from = file("from", data);
        const std::string to = directory.path("to");
        Card card;
        Capture wire;
        const Finished moved =
            run(host({"write", "12345678", from, "read", "12345678", std::to_string(size), to}));
        EXPECT_EQ(moved.status, 0) << moved.out;
        EXPECT_EQ(content_of(to), data) << size;
        std::vector<size_t> sizes;
        for (const Bytes &frame : wire.sent()) {
            sizes.push_back(frame.size());
        }
        std::vector<size_t> expected;
        for (size_t rest = size; rest > 0; rest -= std::min(rest, kLargestPiece)) {
            expected.push_back(26 + std::clamp<size_t>(rest, 64, kLargestPiece));
        }
        expected.insert(expected.end(), expected.size(), 90);
        EXPECT_EQ(sizes, expected) << size;
        const Counters counters = card.stop();
        EXPECT_EQ(counters["bad_frames"], 0);
        EXPECT_EQ(counters["bytes_written"], static_cast<int64_t>(size));
        EXPECT_EQ(counters["bytes_read"], static_cast<int64_t>(size));
    }
}

// Two processes write 64 MiB each and read what the other one wrote, both at a time, over a link
// that loses answers.
TEST_F(BusBlock, Of64MiBGoesBothWaysBetweenTwoProcessesAlthoughAnswersAreLost) {
    const Bytes first = block(kLargestBlock, 1);
    const Bytes second = block(kLargestBlock, 2);
    const std::string size = std::to_string(kLargestBlock);
    const std::string got_first = directory.path("got_first");
    const std::string got_second = directory.path("got_second");
    Card card({"--nth", "drop:3", "--nth", "drop:4000", "--nth", "drop:15000"},
              Card::Priority::kRealTime);
    Process a(
        host({"write", "0", file("first", first), "pause", "read", "80000000", size, got_second}));
    Process b(
        host({"write", "80000000", file("second", second), "pause", "read", "0", size, got_first}));
    ASSERT_TRUE(a.await_output("pause\n")) << a.out();
    ASSERT_TRUE(b.await_output("pause\n")) << b.out();
    {
        const Traffic others;
        a.send(SIGUSR1);
        b.send(SIGUSR1);
        EXPECT_EQ(a.wait(kLongTransfer), 0) << a.out();
        EXPECT_EQ(b.wait(kLongTransfer), 0) << b.out();
    }
    EXPECT_TRUE(holds(got_first, first));
    EXPECT_TRUE(holds(got_second, second));
    const std::string out = a.out() + b.out();
    EXPECT_EQ(count(out, ":read_process_func() failed."), 0) << out;
    EXPECT_GE(count(out, ":recv_read_back_message_func() failed."), 3) << out;
    const Counters counters = card.stop();
    EXPECT_EQ(counters["drop"], 3);
    EXPECT_EQ(counters["bad_frames"], 0);
    EXPECT_EQ(counters["plain_writes"], 2 * 8389);
    EXPECT_GE(counters["reads"], 2 * 8389 + 3);
}

// A host may let its receives time out: then a silent link is no end, either.
TEST_F(BusBlock, SurvivesLossDamageAndRepeatsWithAReceiveTimeOut) {
    const Bytes data = block(100'000, 3);
    const std::string to = directory.path("to");
    Card card({"--drop", "3", "--corrupt", "3", "--duplicate", "20", "--seed", "11"});
    const Finished moved = run(host({"timeout", "5", "write", "1000", file("from", data), "read",
                                     "1000", std::to_string(data.size()), to}));
    EXPECT_EQ(moved.status, 0) << moved.out;
    EXPECT_TRUE(content_of(to) == data);
    const Counters counters = card.stop();
    EXPECT_GE(counters["drop"] + counters["corrupt"], 1) << counters.json;
    EXPECT_GE(counters["duplicate"], 1);
}

TEST_F(BusBlock, IsGivenUpAfterTenAttempts) {
    const std::string to = directory.path("to");
    Card card({"--silence", "any"});
    const Finished moved = run(host({"timeout", "2", "read", "1000", "9000", to}));
    EXPECT_EQ(moved.status, 0) << moved.out; // the result is that of the semaphore
    EXPECT_EQ(count(moved.out, ":recv_read_back_message_func() failed.\n"), 10);
    EXPECT_EQ(count(moved.out, ":read_process_func() failed.\n"), 1);
    EXPECT_EQ(content_of(to), Bytes(9000, 0));
    EXPECT_EQ(card.stop()["reads"], 10);
}

TEST_F(BusBlock, IsReadAnewAfterARefusal) {
    const Bytes data = block(9000, 5);
    const std::string to = directory.path("to");
    Card card({"--error", "80@anyx2"});
    const Finished moved =
        run(host({"write", "1000", file("from", data), "read", "1000", "9000", to}));
    EXPECT_EQ(moved.status, 0) << moved.out;
    EXPECT_EQ(count(moved.out, ":read back failed, ACK flag = 128.\n"), 2);
    EXPECT_TRUE(content_of(to) == data);
    EXPECT_EQ(card.stop()["reads"], 4);
}

// --- the semaphore ------------------------------------------------------------------------------

class BusSemaphore : public BusBlock {
protected:
    Bytes data = block(100, 6);
    std::string from = file("from", data);
    Card card;
    Words write_it = {"write", "1000", from};
};

TEST_F(BusSemaphore, IsMadeOnceAndFoundFromThenOn) {
    const Finished first = run(host({}));
    const Finished second = run(host({}));
    EXPECT_EQ(count(first.out, "already exits"), 0) << first.out;
    EXPECT_EQ(count(first.out, "sem_id = "), 1) << first.out;
    EXPECT_EQ(count(second.out, "]:: sem_id = -1, errno = 17.\n"), 1) << second.out;
    EXPECT_EQ(count(second.out, ") already exits.\n"), 1) << second.out;
    EXPECT_EQ(run(host({"close"})).status, 0);
    const Finished anew = run(host({}));
    EXPECT_EQ(count(anew.out, "already exits"), 0) << anew.out;
}

TEST_F(BusSemaphore, IsHeldAgainstOthersUntilItIsGivenBack) {
    Process holder(host({"hold", "pause", "give", "pause"}));
    ASSERT_TRUE(holder.await_output("hold\ndone\n")) << holder.out();
    Process other(host(write_it));
    ASSERT_TRUE(other.await_output("write\n")) << other.out();
    EXPECT_EQ(other.wait(kStillWaiting), std::nullopt) << other.out();
    holder.send(SIGUSR1);
    EXPECT_EQ(other.wait(), 0) << other.out();
    EXPECT_EQ(card.stop()["bytes_written"], 100);
}

TEST_F(BusSemaphore, IsWaitedForThroughTheTicksOfTheLibrary) {
    Process holder(host({"hold", "pause", "give"}));
    ASSERT_TRUE(holder.await_output("hold\ndone\n")) << holder.out();
    Process other(host({"tick", "write", "1000", from}));
    ASSERT_TRUE(other.await_output("write\n")) << other.out();
    EXPECT_EQ(other.wait(kStillWaiting), std::nullopt) << other.out(); // six ticks or so
    holder.send(SIGUSR1);
    EXPECT_EQ(other.wait(), 0) << other.out();
    EXPECT_EQ(card.stop()["bytes_written"], 100);
}

TEST_F(BusSemaphore, IsTakenOverWhenItsHolderDies) {
    for (const int signo : {SIGKILL, SIGABRT, SIGTERM}) {
        Process holder(host({"hold", "pause"}));
        ASSERT_TRUE(holder.await_output("hold\ndone\n")) << holder.out();
        Process other(host(write_it));
        ASSERT_TRUE(other.await_output("write\n")) << other.out();
        EXPECT_EQ(other.wait(kStillWaiting), std::nullopt) << other.out();
        holder.send(signo);
        EXPECT_EQ(other.wait(), 0) << other.out();
        EXPECT_EQ(holder.wait(), 1000 + signo);
    }
    EXPECT_EQ(card.stop()["bytes_written"], 300);
}

TEST_F(BusSemaphore, IsFreeAgainAfterAHolderThatEndedWithoutGivingItBack) {
    EXPECT_EQ(run(host({"hold"})).status, 0);
    EXPECT_EQ(run(host(write_it)).status, 0);
}

TEST_F(BusSemaphore, IsRemovedUnderThoseWhoWait) {
    Process holder(host({"hold", "pause", "close", "give"}));
    ASSERT_TRUE(holder.await_output("hold\ndone\n")) << holder.out();
    Process other(host(write_it));
    ASSERT_TRUE(other.await_output("write\n")) << other.out();
    EXPECT_EQ(other.wait(kStillWaiting), std::nullopt) << other.out();
    holder.send(SIGUSR1);
    EXPECT_EQ(other.wait(), 1) << other.out();
    EXPECT_EQ(count(other.out(), ":semaphore P func failed\n"), 1) << other.out();
    EXPECT_EQ(holder.wait(), 1);
    EXPECT_EQ(count(holder.out(), ":semaphore V func failed\n"), 1) << holder.out();
    EXPECT_EQ(card.stop()["bytes_written"], 0);
}

// A reader that waits for an answer that never comes has the bus, until it dies.
TEST_F(BusBlock, OfAProcessThatDiesWhileItReadsDoesNotStopTheNextOne) {
    const Bytes data = block(20'000, 7);
    const std::string to = directory.path("to");
    Card card({"--silence", "9000x1"});
    Process reader(host({"read", "9000", "100", directory.path("nothing")}));
    ASSERT_TRUE(reader.await_output("read\n")) << reader.out();
    Process other(host({"write", "1000", file("from", data), "read", "1000", "20000", to}));
    ASSERT_TRUE(other.await_output("write\n")) << other.out();
    EXPECT_EQ(other.wait(kStillWaiting), std::nullopt) << other.out();
    reader.send(SIGKILL);
    EXPECT_EQ(other.wait(), 0) << other.out();
    EXPECT_TRUE(content_of(to) == data);
    EXPECT_EQ(card.stop()["silence"], 1);
}

// Many processes at once: each block arrives whole, so no transfer ran into another.
TEST_F(BusSemaphore, KeepsManyProcessesApart) {
    constexpr int kProcesses = 6;
    const Bytes large = block(300'000, 8);
    const std::string source = file("large", large);
    std::vector<std::unique_ptr<Process>> all;
    for (int i = 0; i < kProcesses; i++) {
        const std::string addr = std::to_string(10 + i) + "00000";
        all.push_back(std::make_unique<Process>(
            host({"timeout", "20", "write", addr, source, "read", addr,
                  std::to_string(large.size()), directory.path("got" + std::to_string(i))})));
    }
    for (int i = 0; i < kProcesses; i++) {
        EXPECT_EQ(all[static_cast<size_t>(i)]->wait(), 0);
        EXPECT_TRUE(content_of(directory.path("got" + std::to_string(i))) == large) << i;
    }
    const Counters counters = card.stop();
    EXPECT_EQ(counters["bytes_written"], kProcesses * static_cast<int64_t>(large.size()));
    EXPECT_EQ(counters["bad_frames"], 0);
}

} // namespace

} // namespace bed
