// What rukd counts on a bad link, compared with what the card counted at the other end.
#include "tests/system/bed/service.h"
#include "tests/system/bed/stalled_log.h"

#include <csignal>
#include <regex>
#include <thread>

namespace bed {

namespace {

class RukdCounters : public SystemTest {
protected:
    Directory directory;
    std::string sockets = directory.path("m");
};

// The JSON lines so far; empty lines and unfinished ones are none.
std::vector<std::string> counter_lines(const std::string &log) {
    static const std::regex line(R"((^|\n)(\{"counters":\{.*\}\})(?=\n))");
    std::vector<std::string> lines;
    for (auto it = std::sregex_iterator(log.begin(), log.end(), line); it != std::sregex_iterator{};
         ++it) {
        lines.push_back((*it)[2]);
    }
    return lines;
}

// Asks rukd, and waits for the answer.
Counters counters_of(const Process &rukd) {
    const size_t before = counter_lines(rukd.out()).size();
    rukd.send(SIGUSR1);
    const auto give_up = std::chrono::steady_clock::now() + kHang;
    std::vector<std::string> lines;
    while ((lines = counter_lines(rukd.out())).size() <= before) {
        if (std::chrono::steady_clock::now() > give_up) {
            ADD_FAILURE() << "no counters: " << rukd.out();
            return {};
        }
        std::this_thread::sleep_for(1ms);
    }
    return {lines.back()};
}

// The part of the JSON for one interface, so that its numbers can be asked for by name.
Counters of_interface(const Counters &all, const std::string &name) {
    const size_t from = all.json.find("\"" + name + "\":{");
    EXPECT_NE(from, std::string::npos) << all.json;
    return {all.json.substr(from, all.json.find("}}", from) - from)};
}

TEST_F(RukdCounters, AgreeWithTheCardsOnABadLink) {
    Card card({"--nth", "drop:3,11", "--nth", "corrupt:5", "--nth", "duplicate:2,7,8", "--nth",
               "drop_request:12", "--nth", "noise:1,4", "--error", "7@5000-5FFF"});
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    Client client(sockets, 0x50);
    constexpr int kRequests = 20;
    int failed = 0;
    for (int i = 0; i < kRequests; i++) {
        // Reads from slot 1 wait half as long for a lost answer; writes to it ask for none.
        Message request{.code = 0x00, .slot = 1, .addr = 0x40, .len = 1400};
        if (i % 2 == 1) {
            request = {.code = 0x02, .slot = 2, .addr = 0x40, .len = 2, .data = {1, 2}};
        }
        request.addr = i % 10 == 9 ? 0x5000 : 0x40; // refused, or carried out
        ASSERT_TRUE(client.send(request));
        failed += from_bytes(client.receive()).result == 0 ? 0 : 1;
    }
    ASSERT_TRUE(client.send({.code = 0x01, .slot = 1, .addr = 0x40, .len = 3, .data = {1, 2, 3}}));
    expect_greeting(client);
    const Counters all = counters_of(rukd);
    const Counters eth0 = of_interface(all, "eth0");
    const Counters at_card = card.stop();

    EXPECT_EQ(eth0["frames_sent"], at_card["requests"]);
    EXPECT_EQ(eth0["bytes_sent"], (kRequests + 1) * 94);
    EXPECT_EQ(eth0["frames_received"], at_card["replies"] + at_card["noise_frames"]);
    EXPECT_EQ(eth0["foreign_frames"], at_card["noise_frames"]);
    EXPECT_EQ(eth0["checksum_errors"], at_card["corrupt"]);
    EXPECT_EQ(eth0["replies"], at_card["replies"] - at_card["corrupt"]);
    EXPECT_EQ(eth0["unmatched_replies"], at_card["duplicate"]);
    EXPECT_EQ(eth0["refusals"], at_card["error"]);
    EXPECT_EQ(eth0["unanswered"], at_card["unanswered_requests"]);
    EXPECT_EQ(eth0["timeouts"], 3 * eth0["unanswered"]);
    for (const char *name : {"send_errors", "receive_errors", "resends", "queue_overflows", "ack",
                             "ack_wait", "read", "read_wait"}) {
        EXPECT_EQ(eth0[name], 0) << name;
    }
    // What was armed did happen.
    EXPECT_EQ(at_card["noise_frames"], 2);
    EXPECT_EQ(at_card["drop"], 2);
    EXPECT_EQ(at_card["drop_request"], 1);
    EXPECT_EQ(at_card["corrupt"], 1);
    EXPECT_EQ(at_card["duplicate"], 3);
    EXPECT_EQ(at_card["error"], 2);
    EXPECT_EQ(eth0["unanswered"], 4);
    EXPECT_EQ(failed, 4);
    for (const char *name : {"eth1", "eth2"}) {
        EXPECT_EQ(of_interface(all, name)["frames_sent"], 0);
        EXPECT_EQ(of_interface(all, name)["frames_received"], 0);
    }
    EXPECT_EQ(all["failed"], 0);
    EXPECT_EQ(all["in_use"], 0);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
    EXPECT_EQ(rukd.err(), "");
}

TEST_F(RukdCounters, TellOfAnInterfaceThatIsDown) {
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    Client client(sockets, 0x50);
    {
        const LinkDown down;
        ASSERT_TRUE(client.send({.code = 0x00, .slot = 1, .addr = 0x40, .len = 4}));
        EXPECT_NE(from_bytes(client.receive()).result, 0U);
        const Counters eth0 = of_interface(counters_of(rukd), "eth0");
        EXPECT_EQ(eth0["frames_sent"], 0);
        EXPECT_EQ(eth0["send_errors"], 1);
        EXPECT_GT(eth0["receive_errors"], 0);
        EXPECT_EQ(eth0["unanswered"], 0);
    }
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

TEST_F(RukdCounters, ComeAlsoWhenTheParentHasBlockedTheSignal) {
    Launch launch = rukd_command(sockets);
    launch.in_child = [inner = launch.in_child] {
        inner();
        sigset_t all;
        (void)sigfillset(&all);
        (void)sigprocmask(SIG_SETMASK, &all, nullptr);
    };
    Process rukd(launch);
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    EXPECT_EQ(counters_of(rukd)["failed"], 0);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

// Each line is whole, in front of, between and behind the log's lines.
TEST_F(RukdCounters, AreLinesOfTheirOwnInABusyLog) {
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    Client client(sockets, 0x50);
    constexpr int kTimes = 50;
    for (int i = 0; i < kTimes; i++) {
        ASSERT_TRUE(client.send({.code = 0x33, .len = 0})); // unknown: logged
        (void)counters_of(rukd);
    }
    expect_greeting(client);
    EXPECT_EQ(count(rukd.out(), "{\"counters\":{"), kTimes);
    EXPECT_EQ(counter_lines(rukd.out()).size(), static_cast<size_t>(kTimes));
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

// The thread sanitizer holds a signal back from a thread that waits for a stream's lock.
#if !defined(__SANITIZE_THREAD__)
TEST_F(RukdCounters, KeepRukdFromItsEndNotEvenWhenNobodyReadsThem) {
    const StalledLog log;
    Process rukd(log.as_output_of(rukd_command(sockets)));
    ASSERT_TRUE(log.read_up_to("rukd: ready")) << rukd.err();
    for (int i = 0; i < 10; i++) { // more than the pipe holds
        rukd.send(SIGUSR1);
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_GT(log.held(), StalledLog::kRoom / 2);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}
#endif

} // namespace

} // namespace bed
