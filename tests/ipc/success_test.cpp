// success_test.cpp - what people see when the service does what it is asked.
#include "client.h"
#include "service.h"

#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

namespace {

using test::Bytes;
using test::contains;
using test::number_at;
using test::run_client;
using test::Service;

using Success = test::ClientTest;

const std::string kNotKnown = "; whether it did as it was told stands in the log of rukd only\n";

// The dump as the tool's readw shows it, made apart from the code that prints it.
std::string dump_of(const Bytes &bytes, uint32_t addr) {
    std::string text;
    char part[16];
    for (size_t i = 0; i < bytes.size(); i++) {
        const bool starts_group = i + 4 <= bytes.size() || bytes.size() < 4;
        if (i % 16 == 0 && starts_group) { // bytes behind the last group stay on its line
            (void)std::snprintf(part, sizeof part, "\n%08x: ", static_cast<unsigned>(addr + i));
            text += part;
        }
        (void)std::snprintf(part, sizeof part, "%02x", static_cast<unsigned>(bytes[i]));
        text += part;
        text += i % 4 == 3 ? " " : "";
    }
    return text + "\n";
}

TEST_F(Success, ShowsTheBytesRead) {
    const Service service(test::answer_well);
    const auto run = run_client({"--slot", "2", "read", "1000", "18"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, "\n00001000: 70717273 74757677 78797a7b 7c7d7e7f 6061\n");
}

TEST_F(Success, SplitsLongReadsAndShowsOneRange) {
    const Service service(test::answer_well);
    size_t before = 0;
    for (const size_t len : {size_t{1400}, size_t{1401}, size_t{4000}}) {
        const auto run = run_client({"--slot", "2", "read", "20000", std::to_string(len)});
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, dump_of(test::memory_at(0x20000, len), 0x20000)) << len;
        const size_t pieces = (len + 1399) / 1400;
        const auto messages = service.received(before + pieces);
        ASSERT_EQ(messages.size(), before + pieces);
        for (size_t i = 1; i < pieces; i++) {
            const auto previous = number_at(messages[before + i - 1], 30, 2);
            EXPECT_EQ(number_at(messages[before + i], 30, 2), (previous + 1) & 0xFFFF);
        }
        before += pieces;
    }
}

// The status that it gave does not reach the requester.
TEST_F(Success, SaysThatTheCardHasAnsweredAWriteAndNoMore) {
    const Service service(test::answer_well);
    const auto run = run_client({"--slot", "2", "write-ack", "7040", "1", "2"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out,
              "write-ack of 2 bytes at 0x00007040, slot 0x2, model 0x0: the card has answered" +
                  kNotKnown);
}

TEST_F(Success, SaysThatAPlainWriteWasHandedOver) {
    const Service service(test::do_nothing);
    const auto run = run_client({"--slot", "2", "write", "7040", "1"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "write of 1 byte at 0x00007040, slot 0x2, model 0x0: handed over\n");
    EXPECT_EQ(service.received(1).size(), 1U);
}

TEST_F(Success, DoesNotWaitForAnAcknowledgementThatNeverComes) {
    const Service service(test::do_nothing);
    const auto run = run_client({"--timeout", "5000", "write-ack", "0fffffff", "1"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_LT(run.ms, 2000);
    EXPECT_EQ(run.out, "write-ack of 1 byte at 0x0fffffff, slot 0x1, model 0x0: handed over; not "
                       "acknowledged: to slot 1, model 0, addresses below 0x10000000 the service "
                       "writes without acknowledgement\n");
}

TEST_F(Success, WaitsForTheAcknowledgementOfTheNextAddress) {
    const Service service(test::answer_well);
    const auto run = run_client({"write-ack", "10000000", "1"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out,
              "write-ack of 1 byte at 0x10000000, slot 0x1, model 0x0: the card has answered" +
                  kNotKnown);
}

TEST_F(Success, HandsPicturesOver) {
    const Service service(test::do_nothing);
    test::make_file(path("p.bmp"), "BM" + std::string(102, 0));
    auto run = run_client({"--slot", "2", "put-picture", "40000", "10", "3", path("p.bmp")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "put-picture at 0x00040000, slot 0x2, model 0x0: handed over; the service "
                       "sends no reply; look at its log\n");
    run = run_client({"--slot", "2", "get-picture", "0", "10", "3", path("q")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "get-picture at 0x00000000, slot 0x2, model 0x0: handed over; the service "
                       "sends no reply; the pixels appear in " +
                           path("q") + " and " + path("q.bmp") + "\n");
    EXPECT_EQ(service.received(2).size(), 2U);
}

TEST_F(Success, ReportsAnUpdate) {
    const Service service(test::answer_well);
    const std::string done = "update, slot 0x2, model 0x0: done";
    EXPECT_EQ(run_client({"--slot", "2", "update", "16", "/f"}).out, done + "\n");
    for (const char *file : {"/f.bin", "/f.BIN", "/f.Bin"}) {
        EXPECT_EQ(run_client({"--slot", "2", "update", "19", file}).out, done + "\n") << file;
    }
    EXPECT_EQ(run_client({"--slot", "2", "update", "1e", "/f.bin"}).out, done + "\n");
}

TEST_F(Success, ShowsTheGreeting) {
    const Service service(test::answer_well);
    const auto run = run_client({"hello", "good morning"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "Hello, I am ruk module!\n");
    const Bytes request = service.received(1).at(0);
    EXPECT_EQ(std::string(request.begin() + 38, request.end() - 2),
              std::string("good morning\0", 13));
}

TEST_F(Success, KeepsControlCharactersOfAGreetingFromTheTerminal) {
    const Service service([](const Bytes &request) {
        Bytes greeting(112);
        test::put_number(greeting, 0, 4, test::kServiceAddress);
        test::put_number(greeting, 18, 2, 28);
        test::put_number(greeting, 26, 1, 0xF0);
        greeting[38] = 0x1B;
        greeting[39] = '[';
        greeting[40] = 0x9B; // the same in one byte
        greeting[41] = 0x7F;
        greeting[42] = '~';
        test::answer(request, greeting);
    });
    EXPECT_EQ(run_client({"hello"}).out, ".[..~\n");
}

// --- replies to others
// ----------------------------------------------------------------------------

TEST_F(Success, TakesNoReplyToAnEarlierRequest) {
    Bytes first;
    const Service service([&first](const Bytes &request) {
        if (first.empty()) {
            first = request; // not answered in time
            return;
        }
        test::answer(request, test::reply_to(first, 0, {0xBA, 0xD0}));
        test::answer(request, test::reply_to(first, 0xFFFFFFFF));
        test::answer(request, test::reply_to(request, 0, {0x60, 0x0D}));
    });
    const test::Words words = {"--module", "c5", "--timeout", "1000", "read", "1000", "2"};
    EXPECT_EQ(run_client({"--module", "c5", "--timeout", "100", "read", "1000", "2"}).status, 3);
    const auto run = run_client(words);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "\n00001000: 600d\n");
}

TEST_F(Success, TakesNoSecondReplyForTheNextPiece) {
    const Service service([](const Bytes &request) {
        test::answer_well(request);
        test::answer_well(request);
    });
    const auto run = run_client({"--slot", "2", "read", "20000", "4000"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, dump_of(test::memory_at(0x20000, 4000), 0x20000));
}

TEST_F(Success, PassesOverWhatIsNoReply) {
    const Service service([](const Bytes &request) {
        const Bytes right = test::reply_to(request, 0, {1});
        Bytes stranger = right;
        test::put_number(stranger, 0, 4, 0x030A3A00);
        test::answer(request, stranger);
        test::answer(request, {});
        test::answer(request, Bytes(38, 0xFF));
        test::answer(request, Bytes(65536, 0xFF));
        Bytes greeting(112);
        test::put_number(greeting, 0, 4, test::kServiceAddress);
        test::put_number(greeting, 18, 2, 28);
        test::put_number(greeting, 26, 1, 0xF0);
        test::answer(request, greeting); // a late one
        test::answer(request, right);
    });
    const auto run = run_client({"read", "1000", "1"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "\n00001000: 01\n");
}

TEST_F(Success, UsesAnotherSeqForEachRun) {
    const Service service(test::answer_well);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(run_client({"--module", "c5", "read", "1000", "1"}).status, 0);
    }
    const auto messages = service.received(3);
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_NE(number_at(messages[0], 30, 2), number_at(messages[1], 30, 2));
    EXPECT_NE(number_at(messages[1], 30, 2), number_at(messages[2], 30, 2));
}

TEST_F(Success, RarelyUsesTheModuleIdOfTheRunBefore) {
    constexpr size_t kRuns = 5;
    const Service service(test::answer_well);
    for (size_t i = 0; i < kRuns; i++) {
        EXPECT_EQ(run_client({"hello"}).status, 0);
    }
    std::set<uint32_t> senders;
    for (const Bytes &message : service.received(kRuns)) {
        senders.insert(number_at(message, 0, 4));
    }
    EXPECT_GT(senders.size(), 1U);
}

TEST_F(Success, ServesFourClientsAtOnce) {
    constexpr uint32_t kClients = 4;
    constexpr int kRuns = 25;
    const Service service(test::answer_well);
    std::mutex failures_lock; // guards failures
    std::string failures;
    std::vector<std::thread> clients;
    for (uint32_t client = 0; client < kClients; client++) {
        clients.emplace_back([&, client] {
            const uint32_t addr = 0x100000 * (client + 1);
            for (int i = 0; i < kRuns; i++) {
                const auto run = run_client(
                    {"--slot", "2", "read", std::to_string(client + 1) + "00000", "1500"});
                if (run.status != 0 || run.out != dump_of(test::memory_at(addr, 1500), addr)) {
                    const std::lock_guard guard(failures_lock);
                    failures += std::to_string(run.status) + " " + run.err;
                }
            }
        });
    }
    for (std::thread &client : clients) {
        client.join();
    }
    EXPECT_EQ(failures, "");
}

// --- without a service
// ----------------------------------------------------------------------------

TEST_F(Success, ShowsInADryRunWhatItWouldSend) {
    const auto run =
        run_client({"--dry-run", "--module", "c1", "--slot", "2", "write-ack", "7040", "1", "ab"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.out.starts_with("message 1 of 1, 42 bytes to 0x030a3b00\n"
                                    "\n00000000: 00c10a03 00000000 00000000 00000000 "
                                    "\n00000010: 00001c00 00000000 c1fe0202 0000"))
        << run.out;
    EXPECT_TRUE(contains(run.out, "40700000 020001ab 0000\n 0 aptid     0x030ac100\n")) << run.out;
    EXPECT_TRUE(contains(run.out, "\n32 addr      0x00007040\n36 len       0x0002\n")) << run.out;
    const auto plain = run_client({"--dry-run", "write", "7040", "1"});
    EXPECT_TRUE(plain.out.starts_with("message 1 of 1, 41 bytes to 0x030a3b00, no reply comes\n"))
        << plain.out;
    EXPECT_EQ(plain.out.find("aptid     0x030a0000"), std::string::npos) << plain.out;
    EXPECT_FALSE(std::filesystem::exists(messages_));
}

TEST_F(Success, SendsNothingInADryRun) {
    const Service service(test::answer_well);
    EXPECT_EQ(run_client({"--dry-run", "read", "0", "4", "--output", path("o")}).status, 0);
    EXPECT_EQ(files_named("o"), 0);
    EXPECT_EQ(run_client({"--dry-run", "put-picture", "0", "1", "1", "/no/such"}).status, 0);
    EXPECT_EQ(run_client({"hello"}).status, 0);
    const auto messages = service.received(1);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(number_at(messages[0], 26, 1), 0xF0U);
}

TEST_F(Success, NeedsNoServiceForItsHelp) {
    const auto help = run_client({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    for (const char *part :
         {"Usage: ruk-ipc", "write-ack ADDR BYTE...", "--timeout MS", "APIPC_DIR",
          "  read ADDR LEN [--output FILE]\n      read LEN bytes from ADDR on and show them",
          "Exit status:\n  0  done; of write-ack: the card has answered, whatever it said;",
          "\n  1  the service reports a failure: the card did not answer or refused;",
          "\n  2  wrong argument\n", "\n  3  no service there, or it did not answer\n"}) {
        EXPECT_TRUE(contains(help.out, part)) << part;
    }
    EXPECT_EQ(run_client({"read", "--help"}).out, help.out);
    const auto version = run_client({"--version"});
    EXPECT_TRUE(version.out.starts_with("ruk-ipc ")) << version.out;
    EXPECT_TRUE(version.out.ends_with("\n")) << version.out;
}

} // namespace
