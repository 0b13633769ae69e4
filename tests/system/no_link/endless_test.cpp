// A wire that never rests: garbage, and a card that refuses for ever.
#include "tests/system/bed/bed.h"
#include "tests/system/bed/preload.h"
#include "tests/system/bed/stalled_log.h"

#include <csignal>
#include <random>
#include <thread>

namespace bed {

namespace {

class Endless : public SystemTest {};

// Frames of random bytes; most start like an answer, so that they come as far as the checksum.
[[noreturn]] void flood(const CardEnd &end) {
    const Bytes start = from_hex("444444444444eb90eb90eb900700aa55");
    std::mt19937 random(1);
    for (;;) {
        for (int i = 0; i < 20; i++) {
            Bytes frame(14 + random() % 1500);
            for (uint8_t &byte : frame) {
                byte = static_cast<uint8_t>(random());
            }
            if (i % 4 != 0 && frame.size() >= start.size()) {
                std::copy(start.begin(), start.end(), frame.begin());
            }
            end.send(frame);
        }
        std::this_thread::sleep_for(2ms);
    }
}

TEST_F(Endless, GarbageIsNeitherShownNorFatal) {
    const Directory directory;
    const CardEnd end;
    Card card({"--memory-load", directory.file("register", {0xCA, 0xFE, 0xBA, 0xBE}) + "@7040"});
    const Process garbage({.argv = {"garbage"}, .in_child = [&end] { flood(end); }});
    for (const std::string word : {"read", "readw", "write", "writea", "writeaw"}) {
        Capture capture;
        const bool is_read = word.starts_with("read");
        const Finished result =
            ruk({"0", word, "1", "3", is_read ? "7040" : "8000", is_read ? "4" : "0x1"});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_GE(capture.received().size(), 100U);
        EXPECT_GE(count(result.out, "]:: recv packet crc error:"), 10);
        EXPECT_EQ(count(result.out, "register end"), 1);
        // An answer may drown in the flood, but a wrong one must not come up from it.
        const int shown = count(result.out, "\n00007040: cafebabe \n");
        EXPECT_EQ(count(result.out, "\n00007040: "), shown + count(result.out, "\n00007040: \n"));
    }
    EXPECT_GE(card.stop()["requests"], 5);
}

// Frames that come as far as the checksum, as fast as they go.
[[noreturn]] void flood_without_pause(const CardEnd &end) {
    Bytes frame = from_hex("444444444444eb90eb90eb900700aa55");
    frame.resize(60);
    for (;;) {
        end.send(frame);
    }
}

// Each damaged frame makes a line, and without a file each line flushes every stream.
TEST_F(Endless, AFloodIsNoReasonToHangAlsoWithoutALogFile) {
    const std::string in_the_way = "/var/log/ruk_log0.txt";
    std::filesystem::remove(in_the_way);
    ASSERT_TRUE(std::filesystem::create_directory(in_the_way));
    const CardEnd end;
    {
        const Process garbage(
            {.argv = {"garbage"}, .in_child = [&end] { flood_without_pause(end); }});
        for (int i = 0; i < 10; i++) {
            const Finished result = ruk({"0", "write", "1", "3", "8000", "0x1", "0x2"});
            EXPECT_EQ(result.status, 0);
            EXPECT_EQ(logged(result, "write fpga 0 , register : 0x00008000 , length : 2 value :"
                                     "01 02 "),
                      1);
            EXPECT_GE(count(result.out, "]:: recv packet crc error:"), 10);
        }
    }
    EXPECT_TRUE(std::filesystem::remove(in_the_way));
}

// Refusals are answered by resends without limit, so that only a signal ends the tool.
TEST_F(Endless, RefusalsForEverLastUntilASignal) {
    for (const int signo : {SIGINT, SIGTERM, SIGQUIT}) {
        for (const Words &words : {Words{"read", "1"}, Words{"writea", "0x1"}}) {
            // At full speed the log fills the disk's cache, and a receiver that stands still in the
            // kernel long enough for three time-outs ends the request.
            Card card({"--error", "02@any", "--delay", "5ms"});
            Capture capture;
            Process tool({.argv = ruk_command({"0", words[0], "1", "3", "7040", words[1]})});
            EXPECT_TRUE(capture.await_sent(20));
            tool.send(SIGHUP); // ignored
            EXPECT_TRUE(capture.await_sent(capture.sent().size() + 20));
            EXPECT_EQ(tool.wait(0ms), std::nullopt);
            tool.send(signo);
            EXPECT_EQ(tool.wait(), 0) << signo << " " << tool.err();
            EXPECT_GE(card.stop()["error"], 40);
        }
    }
}

// In order: the limit for what is still to be written is not reached.
TEST_F(Endless, ASignalEndsAWaitingCommand) {
    const Directory directory;
    for (const int signo : {SIGINT, SIGTERM, SIGQUIT}) {
        const std::string log = directory.file("calls", {});
        Process tool({.argv = ruk_command({"0", "readw", "1", "3", "7040"},
                                          preloading(CALL_LOG_LIBRARY, {"CALL_LOG=" + log}))});
        ASSERT_TRUE(tool.await_output("thread1 id"));
        tool.send(SIGHUP); // ignored
        tool.send(signo);
        EXPECT_EQ(tool.wait(), 0);
        EXPECT_EQ(count(tool.out(), "register end"), 0); // it was in the middle of its work
        const Bytes calls = content_of(log);
        EXPECT_EQ(count(std::string(calls.begin(), calls.end()), "no exit"), 0);
    }
}

// The receiver stands still in the middle of a line, and with it the stream that it prints to.
TEST_F(Endless, ACommandEndsAlsoWhenNobodyReadsItsLogAnyMore) {
    const CardEnd end;
    for (const bool is_done : {true, false}) {
        const StalledLog log;
        const std::string source = is_done ? "0x1" : "/missing";
        Process tool(log.as_output_of(
            {.argv = ruk_command({"0", "write", "1", "3", "8000", source},
                                 preloading(CALL_LOG_LIBRARY, {"RECEIVER=prints"}))}));
        ASSERT_TRUE(log.read_up_to(is_done ? "]:: write register end\n"
                                           : " writea model slot addr filename ]\n"));
        // Not before: the receiver would hardly let the command come to its words.
        const Process garbage(
            {.argv = {"garbage"}, .in_child = [&end] { flood_without_pause(end); }});
        EXPECT_EQ(tool.wait(), is_done ? 0 : 255);
    }
}

// The way out writes what is still to be written: that is not waited for without end.
TEST_F(Endless, ASignalEndsTheToolAlsoWhenNobodyReadsItsLog) {
    const StalledLog log;
    Card card({"--error", "5@7040"}); // each refusal makes a line and another frame
    Process tool(log.as_output_of({.argv = ruk_command({"0", "writea", "1", "3", "7040", "0x1"})}));
    while (log.held() < StalledLog::kRoom - 256 && !tool.wait(1ms)) {
    }
    tool.send(SIGINT);
    EXPECT_EQ(tool.wait(), 0);
    (void)card.stop();
}

} // namespace

} // namespace bed
