// failure_test.cpp - refusals, silence, nobody there, and who is told what by which exit status.
#include "client.h"
#include "exchange.h"
#include "service.h"

#include "board/board.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <regex>
#include <sys/stat.h>

#include <cerrno>

namespace {

using test::Bytes;
using test::contains;
using test::run_client;
using test::Service;

using Failure = test::ClientTest;

constexpr int kRefused = 1;
constexpr int kUsage = 2;
constexpr int kNoAnswer = 3;

TEST_F(Failure, OfTheCardIsToldByTheService) {
    const Service service(test::refuse);
    const std::string reason =
        ": the service reports a failure (result -1): no answer from the card within its time, or ";
    auto run = run_client({"--slot", "2", "read", "7040", "4"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "ruk-ipc: read of 4 bytes at 0x00007040, slot 0x2, model 0x0" + reason +
                           "the card refused\n");
    run = run_client({"--slot", "2", "write-ack", "7040", "4"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_EQ(run.err, "ruk-ipc: write-ack of 1 byte at 0x00007040, slot 0x2, model 0x0" + reason +
                           "nothing could be sent; the card may have been written to all the "
                           "same\n");
}

TEST_F(Failure, ShowsAResultThatNobodyKnows) {
    const Service service(
        [](const Bytes &request) { test::answer(request, test::reply_to(request, 0x1234)); });
    const auto run = run_client({"--slot", "2", "read", "7040", "4"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_TRUE(run.err.ends_with(": the service reports result 0x1234\n")) << run.err;
}

TEST_F(Failure, OfALaterPieceSaysHowFarItGot) {
    const Service service([](const Bytes &request) {
        if (test::number_at(request, 32, 4) == 0x1000 + 2800) {
            test::refuse(request);
        } else {
            test::answer_well(request);
        }
    });
    const auto run = run_client({"--slot", "2", "read", "1000", "4000"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(contains(run.err, "read of 1200 bytes at 0x00001af0")) << run.err;
    EXPECT_TRUE(contains(run.err, "; the first 2800 of 4000 bytes were read before\n")) << run.err;
}

TEST_F(Failure, OfAnUpdateShowsTheResult) {
    uint32_t result = 7;
    const Service service([&result](const Bytes &request) {
        Bytes reply = test::reply_to(request, result);
        result = 0xFFFFFFFF;
        reply.resize(44);
        test::put_number(reply, 38, 4, test::number_at(request, 38, 4));
        test::answer(request, reply);
    });
    auto run = run_client({"update", "16", "/f"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_EQ(run.err, "ruk-ipc: update, slot 0x1, model 0x0: the service reports exit status 7 of "
                       "the programming tool\n");
    run = run_client({"update", "16", "/f"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_TRUE(contains(run.err, "reports a failure (result -1): the file is missing there"))
        << run.err;
}

TEST_F(Failure, OfAReplyWithTheWrongLength) {
    struct Row {
        Bytes data;
        const char *message;
    };
    for (const Row &row :
         {Row{{}, "the service sent 0 bytes of data instead of 4\n"},
          Row{{1, 2, 3}, "the service sent 3 bytes of data instead of 4\n"},
          Row{Bytes(5), "the service sent 5 bytes of data instead of 4\n"},
          Row{Bytes(60000), "the service sent 60000 bytes of data instead of 4\n"}}) {
        const Service service([&row](const Bytes &request) {
            test::answer(request, test::reply_to(request, 0, row.data));
        });
        const auto run = run_client({"read", "7040", "4"});
        EXPECT_EQ(run.status, kRefused);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.ends_with(row.message)) << run.err;
    }
}

TEST_F(Failure, OfAReplyThatIsCutOff) {
    const Service service([](const Bytes &request) {
        Bytes reply = test::reply_to(request, 0, Bytes(1400));
        reply.resize(1439);
        test::answer(request, reply);
    });
    const auto run = run_client({"read", "7040", "1400"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_TRUE(run.err.ends_with("the service sent a reply of 1439 bytes instead of 1440\n"))
        << run.err;
}

// --- no answer
// ------------------------------------------------------------------------------------

TEST_F(Failure, ToAnswerEndsAtTheTimeOut) {
    const Service service([](const Bytes &request) {
        test::answer(request, Bytes(50, 0xFF));
        test::answer(request, Bytes(50, 0xFF));
    });
    const auto run = run_client({"--slot", "2", "--timeout", "300", "read", "7040", "4"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_GE(run.ms, 300);
    EXPECT_LT(run.ms, 1500);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(
        run.err,
        "ruk-ipc: read of 4 bytes at 0x00007040, slot 0x2, model 0x0: no answer from the "
        "service 0x030a3b00 in " +
            messages_.string() +
            " within 300 ms; 2 other messages came and were dropped. Look at: is rukd running "
            "and not busy with another request, what does its log say of this one. A card "
            "that does not answer is no reason: rukd would say so\n");
}

TEST_F(Failure, ToAnswerCountsNoMessagesOfAnEarlierPiece) {
    const Service service([](const Bytes &request) {
        if (test::number_at(request, 32, 4) == 0x1000) {
            test::answer(request, Bytes(50, 0xFF));
            test::answer(request, Bytes(50, 0xFF));
            test::answer_well(request);
        } else {
            test::answer(request, Bytes(50, 0xFF));
        }
    });
    const auto run = run_client({"--slot", "2", "--timeout", "300", "read", "1000", "2000"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_TRUE(contains(run.err, "within 300 ms; 1 other messages came and were dropped."))
        << run.err;
}

TEST_F(Failure, OfEachCommandThatWaitsEndsAtTheTimeOut) {
    const Service service(test::do_nothing);
    for (const test::Words &words :
         {test::Words{"--timeout", "50", "hello"},
          test::Words{"--timeout", "50", "update", "16", "/f"},
          test::Words{"--timeout", "50", "write-ack", "10000000", "1"}}) {
        const auto run = run_client(words);
        EXPECT_EQ(run.status, kNoAnswer);
        EXPECT_GE(run.ms, 50);
        EXPECT_TRUE(contains(run.err, "within 50 ms")) << run.err;
    }
}

// Unwanted messages must not make the wait longer.
TEST_F(Failure, ToAnswerEndsAtTheTimeOutAlsoInAStreamOfOtherMessages) {
    constexpr int kStream = 30000; // ms; ends with the service
    const Service service([](const Bytes &request) {
        const test::Stopwatch watch;
        while (watch.ms() < kStream) {
            test::answer(request, Bytes(50, 0xFF));
            (void)usleep(1000);
        }
    });
    const auto run = run_client({"--timeout", "200", "read", "7040", "4"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_GE(run.ms, 200);
    EXPECT_LT(run.ms, kStream);
}

TEST_F(Failure, WithoutAServiceShowsAtOnce) {
    test::make_file(path("p.txt"), "BGR");
    for (const test::Words &words :
         {test::Words{"--slot", "2", "read", "7040", "4"}, test::Words{"write", "0", "1"},
          test::Words{"put-picture", "0", "1", "1", path("p.txt")}, test::Words{"hello"}}) {
        const auto run = run_client(words);
        EXPECT_EQ(run.status, kNoAnswer);
        EXPECT_LT(run.ms, 2000);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.ends_with(": nobody listens as the request service 0x030a3b00 in " +
                                      messages_.string() +
                                      ": is rukd running, and with the same APIPC_DIR and "
                                      "APCARD_SLOT?\n"))
            << run.err;
    }
}

TEST_F(Failure, OfAnUpdateThatTheServiceLeavesAloneSaysWhy) {
    const Service service(test::answer_well);
    auto run = run_client({"update", "19", "/f.dat"});
    EXPECT_EQ(run.status, kRefused);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "ruk-ipc: update, slot 0x1, model 0x0: the service sends files with .bin in "
                       "their name only, so nothing was updated\n");
    for (const char *kind : {"15", "1f"}) {
        run = run_client({"update", kind, "/f.bin"});
        EXPECT_EQ(run.status, kRefused);
        EXPECT_EQ(run.err, "ruk-ipc: update, slot 0x1, model 0x0: the service knows kinds 0x16 to "
                           "0x1e only, so nothing was updated\n");
    }
}

TEST_F(Failure, AfterTheServiceDiedShowsAtOnce) {
    { const Service service(test::do_nothing); }
    const auto run = run_client({"hello"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_TRUE(contains(run.err, "nobody listens")) << run.err;
}

// --- the message directory
// ------------------------------------------------------------------------

// Root passes every lock; without this capability, which exec does not give back, it does not.
void give_up_override() {
    (void)prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
    (void)prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
}

TEST_F(Failure, ToEnterTheDirectoryNamesIt) {
    std::filesystem::create_directory(messages_);
    ASSERT_EQ(chmod(messages_.c_str(), 0), 0);
    const auto run = run_client({"hello"}, give_up_override);
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_EQ(run.err, "ruk-ipc: cannot register with the message sockets in " +
                           messages_.string() +
                           ": Permission denied; are you in the group of the directory?\n");
    ASSERT_EQ(chmod(messages_.c_str(), 0700), 0);
}

TEST_F(Failure, OfALongDirectoryNameIsTold) {
    const std::string longest = root_ / std::string(120, 'x');
    (void)setenv("APIPC_DIR", longest.c_str(), 1);
    const auto run = run_client({"hello"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_EQ(run.err, "ruk-ipc: cannot register with the message sockets in " + longest +
                           ": File name too long\n");
}

TEST_F(Failure, NamesTheDirectoryThatIsUsedWithoutOne) {
    (void)setenv("APIPC_DIR", "", 1);
    EXPECT_EQ(ipc::message_directory(), "/run/apipc");
    (void)unsetenv("APIPC_DIR");
    EXPECT_EQ(ipc::message_directory(), "/run/apipc");
}

// A process that is a module until the test ends.
class Neighbour {
public:
    explicit Neighbour(uint32_t address)
        : process_([this, address] {
              const bool registered = apipc_init(static_cast<int>(address), 0) == 0;
              ready_.open();
              return registered ? pause() : 1;
          }) {
        ready_.enter();
    }

private:
    test::Gate ready_;
    test::Child process_;
};

TEST_F(Failure, OfAServiceThatTakesNoMessageSaysHowLongItWaited) {
    const Neighbour stuck(0x030A3B00);
    int sent = 0;
    while (sent < 1000 && run_client({"write", "0", "1"}).status == 0) {
        sent++; // one more lies in its queue
    }
    EXPECT_LT(sent, 1000);
    const auto run = run_client({"read", "7040", "4"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_TRUE(std::regex_search(
        run.err, std::regex("^ruk-ipc: read of 4 bytes at 0x00007040, slot 0x1, model 0x0: the "
                            "request service 0x030a3b00 in [^ ]+ took no message within [0-9]+ ms: "
                            "it is stuck or overloaded; look at its log\n$")))
        << run.err;
}

TEST_F(Failure, ToReachTheServiceIsToldWithItsReason) {
    const Neighbour service(test::kServiceAddress);
    ASSERT_EQ(chmod((messages_ / "030a3b").c_str(), 0), 0);
    const auto run = run_client({"hello"}, give_up_override);
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_EQ(run.err, "ruk-ipc: hello: cannot send to the request service 0x030a3b00 in " +
                           messages_.string() + ": Permission denied\n");
}

TEST_F(Failure, ToGetAModuleIdThatIsTaken) {
    const Service service(test::answer_well);
    const Neighbour neighbour(0x030AC500);
    const auto run = run_client({"--module", "c5", "hello"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_EQ(run.err, "ruk-ipc: cannot register: another process has module id 0xc5\n");
    EXPECT_EQ(run_client({"--module", "c6", "hello"}).status, 0);
}

// Their first users were others, in a directory that several may write to.
TEST_F(Failure, ToUseModuleIdsOfOthersIsNoneWhileOneIsLeft) {
    const Service service(test::answer_well);
    for (uint32_t module = 0xC0; module < 0xEF; module++) {
        char name[16];
        (void)snprintf(name, sizeof name, "030a%02x.lock", module);
        test::make_file((messages_ / name).string(), "");
        ASSERT_EQ(chmod((messages_ / name).c_str(), 0), 0);
    }
    EXPECT_EQ(run_client({"hello"}, give_up_override).status, 0);
    EXPECT_EQ(run_client({"--module", "c0", "hello"}, give_up_override).status, kNoAnswer);
}

TEST_F(Failure, OnlyWhenAllModuleIdsAreTaken) {
    constexpr uint32_t kLast = 0xEF;
    const Service service(test::answer_well);
    std::vector<std::unique_ptr<Neighbour>> neighbours;
    for (uint32_t module = 0xC0; module < kLast; module++) {
        neighbours.push_back(std::make_unique<Neighbour>(0x030A0000 | module << 8));
    }
    EXPECT_EQ(run_client({"hello"}).status, 0); // the last one is found from wherever it starts
    neighbours.push_back(std::make_unique<Neighbour>(0x030A0000 | kLast << 8));
    const auto run = run_client({"hello"});
    EXPECT_EQ(run.status, kNoAnswer);
    EXPECT_EQ(run.err, "ruk-ipc: cannot register: all 48 module ids for clients are in use\n");
}

// --- the command line and standard output
// ---------------------------------------------------------

TEST_F(Failure, OfTheCommandLineEndsWithAHint) {
    const auto run = run_client({"read", "x", "1"});
    EXPECT_EQ(run.status, kUsage);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "ruk-ipc: read: ADDR 'x': not 0 to ffffffff, hexadecimal\n"
                       "Try 'ruk-ipc --help'.\n");
    EXPECT_EQ(run_client({}).status, kUsage);
    EXPECT_FALSE(std::filesystem::exists(messages_));
}

TEST_F(Failure, ToPrintTheResultIsNoSuccess) {
    const Service service(test::answer_well);
    const auto to_full_disk = [] { (void)dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
    const auto to_nobody = [] {
        int ends[2];
        (void)pipe(ends);
        (void)dup2(ends[1], STDOUT_FILENO);
        (void)close(ends[0]);
    };
    const auto to_closed = [] { (void)close(STDOUT_FILENO); };
    const std::string complaint = "ruk-ipc: cannot write to standard output";
    for (const std::function<void()> &redirect :
         {std::function<void()>(to_full_disk), std::function<void()>(to_nobody),
          std::function<void()>(to_closed)}) {
        for (const test::Words &words :
             {test::Words{"read", "0", "4"}, test::Words{"read", "0", "9000"},
              test::Words{"--help"}, test::Words{"--json", "hello"}}) {
            const auto run = run_client(words, redirect);
            EXPECT_EQ(run.status, kRefused);
            EXPECT_TRUE(run.err.starts_with(complaint)) << run.err;
        }
    }
}

TEST_F(Failure, NeverMistakesTheMessageSocketForAClosedStream) {
    const Service service(test::answer_well);
    const auto run = run_client({"read", "0", "4"}, [] {
        (void)close(STDIN_FILENO);
        (void)close(STDERR_FILENO);
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "\n00000000: 00010203 \n");
}

} // namespace
