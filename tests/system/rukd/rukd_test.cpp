// The request service as a process: what it puts on the wire, what it answers, how it starts and
// ends.
#include "tests/system/bed/service.h"

#include <fcntl.h>
#include <filesystem>
#include <linux/capability.h>
#include <random>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace bed {

namespace {

class ServiceTest : public SystemTest {
protected:
    Directory directory;
    std::string sockets = directory.path("m");
};

TEST_F(ServiceTest, ReadsAndWritesRegistersOnTheWire) {
    Card card;
    Service service(sockets);
    Client client(sockets, 0x50);
    Capture capture;

    const Bytes data = {0x11, 0x22, 0x33, 0x44, 0x55};
    ASSERT_TRUE(client.send({.reserved = 0xA1B2C3D4,
                             .id = 99,
                             .code = 0x02,
                             .slot = 3,
                             .model = 0x0102,
                             .seq = 0x7788,
                             .addr = 0x1234,
                             .len = 5,
                             .data = data}));
    const Bytes written = client.receive();
    EXPECT_EQ(hex(written), "003b0a00"
                            "d4c3b2a1"
                            "00000000"
                            "00000000"
                            "0000"
                            "1c00"
                            "63000000"
                            "3bfe0203"
                            "0201"
                            "8877"
                            "34120000"
                            "0500"
                            "1122");

    ASSERT_TRUE(client.send(
        {.code = 0x00, .slot = 3, .model = 0x0102, .seq = 0xFFFF, .addr = 0x1234, .len = 5}));
    const Bytes read = client.receive();
    EXPECT_EQ(hex(read), "003b0a00"
                         "00000000"
                         "05000000"
                         "00000000"
                         "0000"
                         "1c00"
                         "00000000"
                         "3bfe0003"
                         "0201"
                         "ffff"
                         "34120000"
                         "0500"
                         "1122334455"
                         "0000");

    ASSERT_TRUE(client.send({.code = 0x01,
                             .slot = 3,
                             .model = 0x0102,
                             .addr = 0x2000,
                             .len = 1402,
                             .data = pattern(1402)}));
    expect_greeting(client);
    ASSERT_TRUE(capture.await_sent(4));
    const std::vector<Bytes> &sent = capture.sent();
    ASSERT_EQ(sent.size(), 4U);
    EXPECT_EQ(
        hex(sent[0]),
        hex(request_frame({.model = 0x0102, .slot = 3, .code = kWriteAck, .addr = 0x1234, .len = 5},
                          data)));
    EXPECT_EQ(
        hex(sent[1]),
        hex(request_frame({.model = 0x0102, .slot = 3, .code = kRead, .addr = 0x1234, .len = 5})));
    EXPECT_EQ(
        hex(sent[2]),
        hex(request_frame({.model = 0x0102, .slot = 3, .code = kWrite, .addr = 0x2000, .len = 1400},
                          part(pattern(1402), 0, 1400))));
    EXPECT_EQ(hex(sent[3]),
              hex(request_frame(
                  {.model = 0x0102, .slot = 3, .code = kWrite, .addr = 0x2000 + 1400, .len = 2},
                  part(pattern(1402), 1400, 2))));
    service.stop();
    (void)card.stop();
}

// The link's own numbering goes on from request to request.
TEST_F(ServiceTest, ReportsASilentCardAsFailure) {
    Card card({"--silence", "any"});
    Service service(sockets);
    Client client(sockets, 0x50);
    ASSERT_TRUE(client.send({.code = 0x00, .slot = 1, .seq = 5, .addr = 0x10, .len = 4}));
    ASSERT_TRUE(client.send(
        {.code = 0x02, .slot = 2, .seq = 6, .addr = 0x10, .len = 2, .data = {0xAB, 0xCD}}));
    const Bytes read = client.receive();
    EXPECT_EQ(hex(read), "003b0a00"
                         "00000000"
                         "00000000"
                         "ffffffff"
                         "0000"
                         "1c00"
                         "00000000"
                         "3bfe0001"
                         "0000"
                         "0500"
                         "10000000"
                         "0400"
                         "0000");
    const Message write = from_bytes(client.receive());
    EXPECT_EQ(write.seq, 6);
    EXPECT_EQ(write.result, 0xFFFFFFFF);
    EXPECT_EQ(write.data, (Bytes{0xAB, 0xCD}));
    service.stop();
}

// A refusal is an answer: only the log tells.
TEST_F(ServiceTest, ReportsARefusedWriteAsDone) {
    Card card({"--error", "7@any"});
    Service service(sockets);
    Client client(sockets, 0x50);
    ASSERT_TRUE(
        client.send({.code = 0x02, .slot = 2, .addr = 0x10, .len = 2, .data = {0xAB, 0xCD}}));
    EXPECT_EQ(from_bytes(client.receive()).result, 0U);
    EXPECT_EQ(count(service.log(), "ack:0x7\n"), 1);
    service.stop();
}

// The same bytes for everyone; most are wrong somewhere.
std::vector<Bytes> wild_messages(int number) {
    std::mt19937 random(20261121);
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random() % limit);
    };
    const uint8_t codes[] = {0x00, 0x01, 0x02, 0xEE, 0xDD, 0xEF, 0xF0, 0x77};
    std::vector<Bytes> messages;
    for (int i = 0; i < number; i++) {
        Bytes bytes;
        if (i % 4 == 0) {
            bytes.resize(below(200));
            for (uint8_t &byte : bytes) {
                byte = static_cast<uint8_t>(random());
            }
        } else {
            // Slot 1 keeps the waits for the card short; reads ask for what it answers at once.
            const uint8_t code = codes[below(std::size(codes))];
            bytes = to_bytes({.aptid = below(0xFFFFFFFF),
                              .kind = static_cast<int16_t>(below(2)),
                              .code = code,
                              .slot = 1,
                              .addr = below(0x10000000),
                              .len = static_cast<uint16_t>(code == 0 ? 1 + below(1400) : below(64)),
                              .data = pattern(below(64))});
            if (i % 4 == 1) {
                bytes[below(static_cast<uint32_t>(bytes.size()))] = static_cast<uint8_t>(random());
            }
            if (i % 4 == 2) {
                bytes.resize(below(static_cast<uint32_t>(bytes.size())));
            }
        }
        messages.push_back(bytes);
    }
    return messages;
}

TEST_F(ServiceTest, ServesOnAfterAnyMessage) {
    constexpr int kMessages = 10'000;
    Card card;
    Service service(sockets);
    Client client(sockets, 0x50);
    for (const Bytes &message : wild_messages(kMessages)) {
        ASSERT_TRUE(client.send_bytes(message));
    }
    expect_greeting(client);
    const Bytes data = pattern(8);
    ASSERT_TRUE(client.send({.code = 0x02, .slot = 2, .addr = 0x40, .len = 8, .data = data}));
    EXPECT_EQ(from_bytes(client.receive()).result, 0U);
    ASSERT_TRUE(client.send({.code = 0x00, .slot = 2, .addr = 0x40, .len = 8}));
    EXPECT_EQ(part(from_bytes(client.receive()).data, 0, 8), data);
    const std::string log = service.log();
    EXPECT_GT(count(log, "shorter than its heads"), kMessages / 20);
    EXPECT_GT(count(log, "end behind it"), kMessages / 20);
    EXPECT_GT(count(log, "msg type wrong"), kMessages / 40);
    service.stop();
}

// One that asks and reads no reply: the others wait for it once, and it gets its replies again when
// it has read.
TEST_F(ServiceTest, IsNotHeldUpByARequesterThatReadsNoReplies) {
    constexpr int kRequests = 60;
    Service service(sockets);
    const Client deaf(sockets, 0x51);
    const Client other(sockets, 0x50);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRequests; i++) {
        ASSERT_TRUE(deaf.send({.code = kGreetingCode}));
    }
    expect_greeting(other);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s); // 100 ms for each would take longer
    const int lost = count(service.log(), "ap_msg: reply to 0xa5100: not delivered, result -1, "
                                          "Connection timed out\n");
    EXPECT_GT(lost, kRequests / 2); // what its socket holds is less
    for (int i = lost; i < kRequests; i++) {
        EXPECT_EQ(deaf.receive().size(), 112U);
    }
    expect_greeting(deaf);
    service.stop();
}

Bytes file_request(const Bytes &fields, const std::string &name) {
    Bytes data = fields;
    data.insert(data.end(), name.begin(), name.end());
    return data;
}

// Whoever may send messages could else write log lines that look like the service's own, or send
// the terminal of whoever reads them its commands.
TEST_F(ServiceTest, ShowsControlCharactersOfOthersByTheirNumbers) {
    constexpr char kName[] = "a\nFORGED\x1B[2J";
    const std::string there = directory.file(std::string(kName) + ".bin", pattern(54));
    const Bytes one_pixel = {1, 0, 0, 0, 1, 0, 0, 0};
    Card card;
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    const Client client(sockets, 0x50);
    const auto ask = [&client](uint8_t code, const Bytes &data) {
        ASSERT_TRUE(client.send(
            {.code = code, .slot = 2, .len = static_cast<uint16_t>(data.size()), .data = data}));
    };
    ask(0x33, file_request({}, kName));
    ask(kGreetingCode, file_request({}, kName));
    EXPECT_EQ(client.receive().size(), 112U);
    for (const std::string &name : {there, directory.path(kName), kName + std::string(300, 'x')}) {
        ask(0xEE, file_request(one_pixel, name));
        ask(0xDD, file_request(one_pixel, name));
        for (const uint8_t kind : Bytes{0x16, 0x19, 0x20}) {
            ask(0xEF, file_request({kind, 0, 0, 0}, name));
            EXPECT_EQ(client.receive().size(), 44U);
        }
    }
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err(); // where the shell says that there is no mcu_isp
    const std::string log = rukd.out();
    EXPECT_GE(count(log, R"(a\x0aFORGED\x1b[2J)"), 20) << log;
    EXPECT_EQ(count(log, "\nFORGED"), 0) << log;
    EXPECT_EQ(count(log, "\x1B"), 0) << log;
    (void)card.stop();
}

TEST_F(ServiceTest, SaysWhatIsMissing) {
    const Finished no_index = run(rukd_command(sockets, {"3"}));
    EXPECT_EQ(no_index.status, 2);
    EXPECT_EQ(no_index.err,
              "rukd: argument '3': not an interface index 0 to 2 (see rukd --help)\n");
    EXPECT_EQ(run(rukd_command(sockets, {"0", "1"})).status, 2);
    EXPECT_EQ(run(rukd_command(sockets, {"--nothing"})).status, 2);

    Launch without_interface = rukd_command(sockets);
    without_interface.in_child = [inner = without_interface.in_child] {
        inner();
        (void)unshare(CLONE_NEWNET);
    };
    const Finished no_interface = run(without_interface);
    EXPECT_EQ(no_interface.status, 1);
    EXPECT_EQ(no_interface.err, "rukd: eth0: no such interface\n");

    const Finished no_directory = run(rukd_command(directory.path("a/b")));
    EXPECT_EQ(no_directory.status, 1);
    EXPECT_EQ(no_directory.err,
              "rukd: message directory " + directory.path("a/b") + ": No such file or directory\n");

    const Directory open_to_all;
    std::filesystem::permissions(open_to_all.path("."), std::filesystem::perms::all);
    Launch without_rights = rukd_command(open_to_all.path("m"));
    without_rights.in_child = [inner = without_rights.in_child] {
        inner();
        constexpr uid_t kNobody = 65534;
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            _exit(99);
        }
    };
    const Finished no_rights = run(without_rights);
    EXPECT_EQ(no_rights.status, 1);
    EXPECT_EQ(no_rights.err, "rukd: eth0: link not up: Operation not permitted (raw sockets need "
                             "CAP_NET_RAW and CAP_NET_ADMIN)\n");
}

TEST_F(ServiceTest, WarnsOfAnInterfaceThatIsDown) {
    const LinkDown down;
    Service service(sockets);
    const Client client(sockets, 0x50);
    expect_greeting(client);
    service.stop("rukd: eth0 is down or without a cable: requests fail until it is up\n");
}

// What is opened first would take their numbers, and log lines would go where it leads.
TEST_F(ServiceTest, FillsTheStandardStreamsThatAreMissing) {
    Launch launch = rukd_command(sockets);
    launch.in_child = [inner = launch.in_child] {
        inner();
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            (void)close(fd);
        }
    };
    Process rukd(launch);
    const std::string socket = sockets + "/000a3b";
    const auto give_up = std::chrono::steady_clock::now() + kHang;
    while (!std::filesystem::exists(socket) && std::chrono::steady_clock::now() < give_up) {
        std::this_thread::sleep_for(1ms);
    }
    const Client client(sockets, 0x50);
    expect_greeting(client);
    for (const char *fd : {"0", "1", "2"}) {
        EXPECT_EQ(
            std::filesystem::read_symlink("/proc/" + std::to_string(rukd.pid()) + "/fd/" + fd),
            "/dev/null");
    }
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0);
}

TEST_F(ServiceTest, SaysThatItMayUseNoRealTimeThreads) {
    Launch launch = rukd_command(sockets);
    launch.in_child = [inner = launch.in_child] {
        inner();
        const rlimit none{};
        if (prctl(PR_CAPBSET_DROP, CAP_SYS_NICE) != 0 || setrlimit(RLIMIT_RTPRIO, &none) != 0) {
            _exit(99);
        }
    };
    const Finished no_right = run(launch);
    EXPECT_EQ(no_right.status, 1);
    EXPECT_EQ(no_right.err, "rukd: eth0: no right to real-time threads (CAP_SYS_NICE)\n");
}

// Requests name no interface: one is chosen for all of them.
TEST_F(ServiceTest, IsNotForAnInterfaceThatNoRequestReaches) {
    for (const std::string index : {"1", "2"}) {
        const Finished refused = run(rukd_command(sockets, {index}));
        EXPECT_EQ(refused.status, 2);
        EXPECT_EQ(refused.err, "rukd: argument '" + index +
                                   "': requests go to interface 0 only, none would reach this "
                                   "(see rukd --help)\n");
        EXPECT_EQ(refused.out, "");
    }
    Process rukd(rukd_command(sockets, {"0"}));
    ASSERT_TRUE(rukd.await_output("rukd: ready, slot 0, eth0, messages in " + sockets + "\n"))
        << rukd.err();
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0);
    EXPECT_EQ(rukd.err(), "");
}

TEST_F(ServiceTest, DumpsFramesOnlyWhenAsked) {
    Card card;
    for (const bool is_asked : {true, false}) {
        Process rukd(rukd_command(sockets, is_asked ? Words{"--frames"} : Words{}));
        ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
        Client client(sockets, 0x50);
        ASSERT_TRUE(client.send({.code = 0x00, .slot = 2, .addr = 0x10, .len = 4}));
        EXPECT_EQ(from_bytes(client.receive()).result, 0U);
        rukd.send(SIGTERM);
        EXPECT_EQ(rukd.wait(), 0);
        EXPECT_EQ(count(rukd.out(), "send: \n"), is_asked ? 1 : 0);
        EXPECT_EQ(count(rukd.out(), "recv: \n"), is_asked ? 1 : 0);
    }
    (void)card.stop();
}

TEST_F(ServiceTest, IsThereOnlyOnce) {
    Service service(sockets);
    const Finished second = run(rukd_command(sockets));
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err,
              "rukd: message directory " + sockets + ": another process serves slot 0 already\n");
    const Client client(sockets, 0x50);
    expect_greeting(client);
    service.stop();
}

TEST_F(ServiceTest, HelpAndVersionNeedNothing) {
    const Finished help = run({.argv = {"rukd", "--help"}, .program = RUKD_PROGRAM});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with("usage: rukd [--frames] [--user NAME | --as-root] [INDEX]\n"))
        << help.out;
    const Finished version = run({.argv = {"rukd", "--version"}, .program = RUKD_PROGRAM});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("rukd ")) << version.out;
    for (const char *word : {"--help", "--version"}) {
        const Finished full =
            run({.argv = {"rukd", word}, .program = RUKD_PROGRAM, .in_child = [] {
                     (void)dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
                 }});
        EXPECT_EQ(full.status, 1);
        EXPECT_EQ(full.err, "rukd: standard output: No space left on device\n");
    }
}

} // namespace

} // namespace bed
