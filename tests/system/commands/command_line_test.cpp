// Words that are wrong, too many or too few, and the name that the tool is started by.
#include "tests/system/bed/bed.h"
#include "tests/system/bed/preload.h"

#include <cstdlib>
#include <unistd.h>

namespace bed {

namespace {

class CommandLine : public SystemTest {};

constexpr char kUsage[] = "usage: \n"
                          "    [ Hex ]\n"
                          "    [ fpga id read model slot addr len ]\n"
                          "    [ fpga id readw model slot addr len ]\n"
                          "    [ fpga id write model slot addr value ]\n"
                          "    [ fpga id writea model slot addr value ]\n"
                          "    [ fpga id writeaw model slot addr value ]\n"
                          "    [ fpga id write model slot addr filename ]\n"
                          "    [ fpga id writea model slot addr filename ]\n";

TEST_F(CommandLine, FewWordsShowTheUsageAndNothingElse) {
    const Words words = {"0", "read", "1", "3"};
    for (size_t size = 0; size <= words.size(); size++) {
        Capture capture;
        const Finished result = ruk(Words(words.begin(), words.begin() + static_cast<long>(size)));
        EXPECT_EQ(result.status, 255);
        EXPECT_TRUE(result.out.ends_with(std::string("]:: use mem manage\n") + kUsage))
            << result.out;
        EXPECT_EQ(count(result.out, "index = "), 0); // the link was not touched
        EXPECT_TRUE(capture.sent().empty());
    }
}

TEST_F(CommandLine, AWriteWithoutDataShowsTheUsage) {
    for (const char *word : {"write", "writea", "writeaw"}) {
        Capture capture;
        const Finished result = ruk({"0", word, "1", "3", "7040"});
        EXPECT_EQ(result.status, 255) << word;
        EXPECT_EQ(count(result.out, kUsage), 1) << result.out;
        EXPECT_TRUE(capture.sent().empty());
    }
}

TEST_F(CommandLine, AnUnknownWordDoesNothing) {
    for (const char *word : {"rea", "READ", "readw ", "", "help"}) {
        Capture capture;
        const Finished result = ruk({"0", word, "1", "3", "7040", "0x1"});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_EQ(count(result.out, "usage"), 0);
        EXPECT_EQ(logged(result, "index = 0"), 1);
        EXPECT_EQ(count(result.out, "eth_init[0].sock_fd = "), 1); // the link went up all the same
        EXPECT_TRUE(capture.sent().empty());
    }
}

// Both threads have time to begin, and are ended before the socket is closed.
TEST_F(CommandLine, TheLinkIsTakenDownBehindEveryWord) {
    const Directory directory;
    const std::string log = directory.path("calls");
    for (const Words &words :
         {Words{"0", "readw", "1", "3", "7040"}, Words{"0", "write", "1", "3", "7040", "0x1"},
          Words{"0", "frobnicate", "1", "3", "7040"}, Words{"0", "writepic", "1", "3", "7040"},
          Words{"0", "write", "1", "3", "7040", directory.path("missing")}}) {
        (void)ruk(words, preloading(CALL_LOG_LIBRARY, {"CALL_LOG=" + log}));
        const Bytes calls = content_of(log);
        EXPECT_EQ(std::string(calls.begin(), calls.end()),
                  "sleep 100000 us\ncancel\ncancel\nclose\n")
            << words[1];
        std::filesystem::remove(log);
    }
}

// It is waited for a second. Then its socket is left to the kernel.
TEST_F(CommandLine, AReceiverThatHangsDoesNotKeepTheToolFromEnding) {
    const Directory directory;
    const std::string log = directory.path("calls");
    for (const bool is_done : {true, false}) {
        const std::string source = is_done ? "0x1" : directory.path("missing");
        const Finished result =
            ruk({"0", "write", "1", "3", "7040", source},
                preloading(CALL_LOG_LIBRARY, {"CALL_LOG=" + log, "RECEIVER=hangs"}));
        EXPECT_EQ(result.status, is_done ? 0 : 255);
        const Bytes calls = content_of(log);
        EXPECT_EQ(std::string(calls.begin(), calls.end()),
                  "sleep 100000 us\ncancel\ncancel\nno exit after 1000000 us\n");
        std::filesystem::remove(log);
    }
}

// To cancel a thread would end the tool.
TEST_F(CommandLine, WithoutAnUnwinderTheThreadsAreLeftToTheKernel) {
    const Directory directory;
    const std::string log = directory.path("calls");
    const Finished result =
        ruk({"0", "write", "1", "3", "7040", "0x1"},
            preloading(CALL_LOG_LIBRARY, {"CALL_LOG=" + log, "UNWINDER=missing"}));
    EXPECT_EQ(result.status, 0);
    const Bytes calls = content_of(log);
    EXPECT_EQ(std::string(calls.begin(), calls.end()), "sleep 100000 us\nno exit after 0 us\n");
}

// The kernel's own limits stay as they are: here nobody may set them.
TEST_F(CommandLine, TheSendBufferLimitsAreRaisedFirst) {
    const Directory directory;
    const std::string log = directory.path("calls");
    const std::string script = "#!/bin/sh\necho \"$@\" >>" + log + "\n";
    const std::string command = directory.file("sysctl", {script.begin(), script.end()});
    std::filesystem::permissions(command, std::filesystem::perms::owner_all);
    const char *path = getenv("PATH");
    const Words prefix = {"env",
                          "PATH=" + directory.path("") + ":" + (path != nullptr ? path : "")};
    EXPECT_EQ(ruk({"0", "write", "1", "3", "7040", "0x1"}, prefix).status, 0);
    const Bytes calls = content_of(log);
    EXPECT_EQ(std::string(calls.begin(), calls.end()), "-w net.core.wmem_max=3492800\n"
                                                       "-w net.core.wmem_default=3492800\n");
}

TEST_F(CommandLine, ModelSlotAndAddressKeepTheirLowBits) {
    Card card({"--model", "3456", "--slot", "cd"});
    Capture capture;
    EXPECT_EQ(ruk({"0", "readw", "0x123456", "0xabcd", "0xFFFFFFFC", "4"}).status, 0);
    ASSERT_EQ(capture.sent().size(), 1U);
    EXPECT_EQ(capture.sent()[0],
              request_frame({.model = 0x3456, .slot = 0xCD, .addr = 0xFFFFFFFC, .len = 4}));
    EXPECT_EQ(card.stop()["read_replies"], 1);
}

TEST_F(CommandLine, WordsThatAreNoNumbersAreZero) {
    const Card card;
    Capture capture;
    EXPECT_EQ(ruk({"abc", "readw", "x", "y", "z", "4"}).status, 0);
    ASSERT_EQ(capture.sent().size(), 1U);
    EXPECT_EQ(capture.sent()[0], request_frame({.len = 4}));
}

std::string frame_dump(const char *direction, const Bytes &frame) {
    std::string text = std::string(direction) + ": \n";
    for (size_t i = 0; i < frame.size(); i++) {
        text += (i % 16 == 0 ? "\n" : "") + hex({frame[i]}) + " ";
    }
    return text + "\n";
}

TEST_F(CommandLine, TheNameRukTestShowsEveryFrame) {
    const Card card;
    Capture capture;
    const Finished result =
        run({.argv = {"ruk_test", "0", "readw", "1", "3", "7040", "20"}, .program = RUK_PROGRAM});
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(capture.sent().size(), 1U);
    ASSERT_EQ(capture.received().size(), 1U);
    EXPECT_EQ(count(result.out, frame_dump("send", capture.sent()[0])), 1) << result.out;
    EXPECT_EQ(count(result.out, frame_dump("recv", capture.received()[0])), 1) << result.out;
}

TEST_F(CommandLine, AnyOtherNameShowsNoFrame) {
    const Directory directory;
    const std::string path = directory.path("ruk_test");
    ASSERT_EQ(symlink(RUK_PROGRAM, path.c_str()), 0);
    for (const std::string &name : {path, std::string("ruk_tes"), std::string("ruk_test2")}) {
        Card card;
        const Finished result =
            run({.argv = {name, "0", "readw", "1", "3", "7040", "20"}, .program = path});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count(result.out, "send: "), 0) << name;
        EXPECT_EQ(count(result.out, "recv: "), 0) << name;
        EXPECT_EQ(card.stop()["read_replies"], 1);
    }
}

} // namespace

} // namespace bed
