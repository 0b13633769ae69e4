// The request service with one failing call after the other: it says so, goes on serving, and keeps
// nothing.
#include "card_and_files.h"

#include "tests/system/bed/cable.h"
#include "tests/system/bed/service.h"

#include <cerrno>
#include <csignal>
#include <filesystem>

namespace failing {

namespace {

using namespace std::chrono_literals;
using bed::Capture;
using bed::Card;
using bed::Client;
using bed::from_bytes;
using bed::Message;
using bed::pattern;

constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr auto kReply = 3s;    // a card that is not asked costs half a second
constexpr auto kQuiet = 800ms; // nothing that a working card answers takes so long
constexpr auto kSoon = 5s;
constexpr auto kWatch = 700ms; // rukd looks after its interface three times meanwhile
constexpr char kCounters[] = "{\"counters\":";

struct Kind {
    const char *name;
    uint8_t code;
    uint32_t addr;
    uint16_t len;     // of a read
    Bytes data;       // of the others, before the name of a file
    const char *file; // in the test's directory, null: none
    bool has_reply;
    uint32_t good_result;
    std::vector<Failure> failures;
};

void PrintTo(const Kind &kind, std::ostream *to) {
    *to << kind.name;
}

std::vector<Failure> failures_of_requests() {
    return single_and_lasting({{Call::kMalloc, ENOMEM},
                               {Call::kSocket, EMFILE},
                               {Call::kSendto, ENOBUFS},
                               {Call::kRecvfrom, ENETDOWN},
                               {Call::kRecv, ENOMEM},
                               {Call::kApipcSend, ECONNREFUSED}});
}

std::vector<Kind> kinds() {
    const Bytes size = {kWidth, 0, 0, 0, kHeight, 0, 0, 0};
    const auto requests = failures_of_requests();
    const auto files = with_files(requests);
    return {{"read", 0x00, kAddr, kReadLen, {}, nullptr, true, 0, requests},
            {"write", 0x01, kAddr, 0, {1, 2, 3}, nullptr, false, 0, requests},
            {"write_ack", 0x02, kAddr, 0, {4, 5, 6}, nullptr, true, 0, requests},
            {"put_picture", 0xEE, 0, 0, size, "picture", false, 0, files},
            {"get_picture", 0xDD, 0, 0, size, "out", false, 0, files},
            {"update", 0xEF, 0, 0, {0x19, 0, 0, 0}, "fw.bin", true, 0, files},
            {"update_by_tool", 0xEF, 0, 0, {0x16, 0, 0, 0}, "fw.bin", true, 127, files},
            {"greeting", 0xF0, 0, 0, {}, nullptr, true, 0, requests}};
}

// rukd with the module, ready or ended when the constructor returns.
class Rukd {
public:
    Rukd(const Failing &order, const std::string &sockets)
        : process_(order.with_module(bed::rukd_command(sockets))),
          is_ready_(process_.await_output("rukd: ready")) {
    }
    [[nodiscard]] bool is_ready() const {
        return is_ready_;
    }
    bool await_output(const char *text) {
        return process_.await_output(text);
    }
    [[nodiscard]] std::string out() const {
        return process_.out();
    }
    [[nodiscard]] std::string err() const {
        return process_.err();
    }
    std::optional<int> end_of_itself() {
        return process_.wait(kSoon);
    }
    /** The line that SIGUSR1 brings; empty when it says that it has no memory for it. */
    [[nodiscard]] std::string counters() const {
        constexpr char kNoMemory[] = "rukd: counters: no memory";
        const int lines = bed::count(process_.out(), kCounters);
        const int refusals = bed::count(process_.err(), kNoMemory);
        process_.send(SIGUSR1);
        for (auto waited = 0ms; waited < kSoon; waited += 1ms) {
            const std::string log = process_.out();
            if (bed::count(log, kCounters) > lines && log.ends_with('\n')) {
                const size_t at = log.rfind(kCounters);
                return log.substr(at, log.find('\n', at) - at);
            }
            if (bed::count(process_.err(), kNoMemory) > refusals) {
                return "";
            }
            std::this_thread::sleep_for(1ms);
        }
        ADD_FAILURE() << "no counters: " << process_.out() << process_.err();
        return "";
    }
    /** Blocks of the pool that are handed out. */
    [[nodiscard]] int64_t pool_in_use() const {
        return bed::Counters{counters()}["in_use"];
    }
    void stop() {
        process_.send(SIGTERM);
        EXPECT_EQ(process_.wait(15s), 0) << out() << err();
        EXPECT_TRUE(contains(out(), "rukd: ended\n"));
    }
    [[nodiscard]] long descriptors() const {
        return entries("fd");
    }
    [[nodiscard]] long threads() const {
        return entries("task");
    }

private:
    [[nodiscard]] long entries(const char *directory) const {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(process_.pid()) +
                                                      "/" + directory);
        return std::distance(begin(all), end(all));
    }

    bed::Process process_;
    bool is_ready_;
};

// What one request led to.
struct Outcome {
    Bytes reply;
    std::string words; // in the log
    std::vector<Bytes> sent;
    std::map<std::string, Bytes> files;
};

class Served : public CardAndFiles {
protected:
    [[nodiscard]] Message request_of(const Kind &kind) const {
        Message request{.code = kind.code, .slot = 3, .model = 0x0102, .seq = 7, .addr = kind.addr};
        request.data = kind.data;
        if (kind.file != nullptr) {
            const std::string name = directory.path(kind.file);
            request.data.insert(request.data.end(), name.begin(), name.end());
            request.data.push_back(0);
        }
        request.len = kind.len != 0 ? kind.len : static_cast<uint16_t>(request.data.size());
        return request;
    }

    // Waits until the log says no more, for requests that are not answered.
    static void await_quiet(const Rukd &rukd) {
        size_t size = 0;
        for (auto quiet = 0ms; quiet < kQuiet; quiet += 20ms) {
            std::this_thread::sleep_for(20ms);
            const size_t now = rukd.out().size();
            quiet = now == size ? quiet : 0ms;
            size = now;
        }
    }

    [[nodiscard]] std::map<std::string, Bytes> files() const {
        std::map<std::string, Bytes> all;
        for (const std::string name : {"out", "out.bmp", "got/firmware-001.bin"}) {
            if (std::filesystem::exists(directory.path(name))) {
                all[name] = bed::content_of(directory.path(name));
            }
        }
        return all;
    }

    void remove_files() const {
        for (const std::string name : {"out", "out.bmp", "got/firmware-001.bin"}) {
            std::filesystem::remove(directory.path(name));
        }
    }

    Outcome ask(const Kind &kind, const Rukd &rukd, const Client &client) const {
        const size_t log_before = rukd.out().size();
        Capture wire;
        EXPECT_TRUE(client.send(request_of(kind)));
        Outcome outcome;
        if (kind.has_reply) {
            outcome.reply = client.receive(std::chrono::duration_cast<bed::Milliseconds>(kReply));
        }
        if (kind.file != nullptr) {
            await_quiet(rukd);
        } else {
            bed::expect_greeting(Client(sockets, 0x51)); // served behind it
        }
        outcome.words = lasting_words(rukd.out().substr(log_before));
        outcome.sent = wire.sent();
        outcome.files = files();
        return outcome;
    }

    void expect_good(const Kind &kind, const Outcome &outcome, const Outcome &good) const {
        EXPECT_EQ(outcome.reply, good.reply) << kind.name;
        EXPECT_EQ(outcome.files, good.files) << kind.name;
        EXPECT_EQ(outcome.sent.size(), good.sent.size()) << kind.name;
    }

    // Under a failure: whoever is told that it was done may rely on it.
    void expect_truth(const Kind &kind, const Outcome &outcome, const Outcome &good) const {
        if (outcome.reply.size() >= bed::kMessageHead && kind.code != bed::kGreetingCode &&
            from_bytes(outcome.reply).result == kind.good_result) {
            EXPECT_EQ(outcome.reply, good.reply);
            EXPECT_EQ(outcome.sent, good.sent) << outcome.words;
            EXPECT_EQ(outcome.files, good.files) << outcome.words;
        }
        if (outcome.reply == good.reply && outcome.words == good.words) {
            EXPECT_EQ(outcome.sent, good.sent) << "says the same as a good one\n" << outcome.words;
            EXPECT_EQ(outcome.files, good.files) << "says the same as a good one\n"
                                                 << outcome.words;
        }
    }

    std::string sockets = directory.path("m");
};

// --- while it serves ----------------------------------------------------------------------------

class Request : public Served, public testing::WithParamInterface<Kind> {
protected:
    Outcome good_outcome() {
        Card card = card_with_data();
        Rukd rukd(order, sockets);
        const Client client(sockets, 0x50);
        Outcome good = ask(GetParam(), rukd, client);
        remove_files();
        rukd.stop();
        (void)card.stop();
        return good;
    }

    void fail_one(const Outcome &good) {
        SCOPED_TRACE(order.description());
        Card card = card_with_data(); // numbers the firmware that it saves
        Rukd rukd(order, sockets);
        ASSERT_TRUE(rukd.is_ready()) << rukd.out() << rukd.err();
        const long descriptors = rukd.descriptors();
        const long threads = rukd.threads();
        const int64_t blocks = rukd.pool_in_use();
        const Client client(sockets, 0x50);
        order.start();
        const Outcome bad = ask_under_failure(rukd, client);
        order.stop();
        SCOPED_TRACE(order.description());
        expect_truth(GetParam(), bad, good);
        bed::expect_greeting(Client(sockets, 0x51));
        (void)client.receive(1ms); // one that was late
        expect_it_works_again(rukd, good);
        EXPECT_EQ(rukd.descriptors(), descriptors) << rukd.out();
        EXPECT_EQ(rukd.threads(), threads) << rukd.out();
        EXPECT_EQ(rukd.pool_in_use(), blocks) << rukd.out();
        rukd.stop();
        (void)card.stop();
        remove_files();
    }

    // No greeting behind it: the failure may be for the greeting.
    Outcome ask_under_failure(const Rukd &rukd, const Client &client) {
        const Kind &kind = GetParam();
        const size_t log_before = rukd.out().size();
        Capture wire;
        EXPECT_TRUE(client.send(request_of(kind)));
        Outcome outcome;
        if (kind.has_reply) {
            outcome.reply = client.receive(std::chrono::duration_cast<bed::Milliseconds>(kReply));
        }
        if (kind.file != nullptr || !kind.has_reply) {
            await_quiet(rukd);
        }
        outcome.words = lasting_words(rukd.out().substr(log_before));
        outcome.sent = wire.sent();
        outcome.files = files();
        return outcome;
    }

    void expect_it_works_again(const Rukd &rukd, const Outcome &good) {
        const std::string got = directory.path("got");
        const auto count = [&got] {
            return std::distance(std::filesystem::directory_iterator(got),
                                 std::filesystem::directory_iterator());
        };
        const auto before = count();
        const Client client(sockets, 0x52);
        const Outcome again = ask(GetParam(), rukd, client);
        EXPECT_EQ(again.reply.size(), good.reply.size()) << again.words;
        if (again.reply.size() >= bed::kMessageHead && GetParam().code != bed::kGreetingCode) {
            EXPECT_EQ(from_bytes(again.reply).result, GetParam().good_result) << again.words;
            EXPECT_EQ(from_bytes(again.reply).data, from_bytes(good.reply).data) << again.words;
        }
        if (contains(GetParam().name, "update")) {
            EXPECT_EQ(count() - before, static_cast<long>(good.files.size())) << again.words;
        } else {
            EXPECT_EQ(again.files, good.files) << again.words;
        }
        EXPECT_EQ(again.sent.size(), good.sent.size()) << again.words;
    }
};

TEST_P(Request, ThatFailsIsToldAndTheNextOneSucceeds) {
    const Outcome good = good_outcome();
    ASSERT_EQ(good.reply.empty(), !GetParam().has_reply) << good.words;
    fail_in_turn(std::string("rukd ") + GetParam().name, GetParam().failures, order, false,
                 [&] { fail_one(good); });
}

INSTANTIATE_TEST_SUITE_P(Kinds, Request, testing::ValuesIn(kinds()),
                         [](const auto &test) { return test.param.name; });

TEST_F(Served, WithoutMemoryForTheCountersToo) {
    Card card = card_with_data();
    const auto failures = single_and_lasting({{Call::kMalloc, ENOMEM}});
    fail_in_turn("rukd counters", failures, order, false, [&] {
        Rukd rukd(order, sockets);
        ASSERT_TRUE(rukd.is_ready()) << rukd.out() << rukd.err();
        order.start();
        (void)rukd.counters();
        order.stop();
        SCOPED_TRACE(order.description());
        EXPECT_FALSE(rukd.counters().empty());
        bed::expect_greeting(Client(sockets, 0x51));
        rukd.stop();
    });
    (void)card.stop();
}

// --- while its interface comes back -------------------------------------------------------------

TEST_F(Served, OpensItsInterfaceAgainWhenTheFailuresAreOver) {
    const bed::Cable cable;
    const auto failures = single_and_lasting({{Call::kMalloc, ENOMEM},
                                              {Call::kSocket, EMFILE},
                                              {Call::kIoctl, EPERM},
                                              {Call::kBind, ENOMEM},
                                              {Call::kPthreadCreate, EAGAIN}});
    fail_in_turn("rukd return", failures, order, false, [&] {
        Rukd rukd(order, sockets);
        ASSERT_TRUE(rukd.is_ready()) << rukd.out() << rukd.err();
        const long descriptors = rukd.descriptors();
        const long threads = rukd.threads();
        cable.remove();
        ASSERT_TRUE(rukd.await_output("rukd: eth0 was removed"));
        order.start();
        cable.make();
        std::this_thread::sleep_for(kWatch);
        order.stop();
        SCOPED_TRACE(order.description());
        ASSERT_TRUE(rukd.await_output("rukd: eth0 is back\n")) << rukd.err();
        Card card = card_with_data();
        const Outcome outcome = ask(kinds()[0], rukd, Client(sockets, 0x50));
        ASSERT_GE(outcome.reply.size(), bed::kMessageHead + kReadLen) << rukd.out() << rukd.err();
        EXPECT_EQ(from_bytes(outcome.reply).result, 0U);
        EXPECT_EQ(rukd.descriptors(), descriptors) << rukd.out() << rukd.err();
        EXPECT_EQ(rukd.threads(), threads) << rukd.out() << rukd.err();
        rukd.stop();
        (void)card.stop();
    });
}

// --- while it starts ----------------------------------------------------------------------------

TEST_F(Served, OrSaysWhatIsMissingAtTheStart) {
    Card card = card_with_data();
    const Kind read = kinds()[0];
    const auto failures = single_and_lasting({{Call::kMalloc, ENOMEM},
                                              {Call::kSocket, EMFILE},
                                              {Call::kIoctl, ENODEV},
                                              {Call::kBind, EADDRINUSE},
                                              {Call::kOpen, EMFILE},
                                              {Call::kFopen, EACCES},
                                              {Call::kPthreadCreate, EAGAIN}});
    fail_in_turn("rukd start", failures, order, true, [&] {
        Rukd rukd(order, sockets);
        SCOPED_TRACE(order.description());
        order.stop();
        if (!rukd.is_ready()) {
            EXPECT_EQ(rukd.end_of_itself(), 1) << rukd.out() << rukd.err();
            EXPECT_TRUE(contains(rukd.err(), "rukd: ")) << rukd.err();
            return;
        }
        const Client client(sockets, 0x50);
        const Outcome outcome = ask(read, rukd, client);
        ASSERT_GE(outcome.reply.size(), bed::kMessageHead + kReadLen) << rukd.out() << rukd.err();
        EXPECT_EQ(bed::part(from_bytes(outcome.reply).data, 0, kReadLen),
                  bed::part(pattern(kFileSize), 0, kReadLen));
        rukd.stop();
    });
    (void)card.stop();
}

// --- its client ---------------------------------------------------------------------------------

struct ClientCommand {
    const char *name;
    Words words;
};

class IpcClient : public Served, public testing::WithParamInterface<ClientCommand> {};

void PrintTo(const ClientCommand &command, std::ostream *to) {
    *to << command.name;
}

TEST_P(IpcClient, EndsAndSaysNothingUntrueWhicheverCallFails) {
    Card card = card_with_data();
    bed::Service rukd(sockets);
    Words words = {"ruk-ipc", "--timeout", "2000", "--slot", "3", "--model", "102"};
    for (const std::string &word : GetParam().words) {
        words.push_back(word == "FILE"   ? picture
                        : word == "OUT"  ? directory.path("out")
                        : word == "FIRM" ? firmware
                                         : word);
    }
    const Launch launch = order.with_module({.argv = words,
                                             .program = RUK_IPC_PROGRAM,
                                             .in_child = bed::rukd_command(sockets).in_child});
    const Finished good = run_to_end(launch);
    ASSERT_EQ(good.status, 0) << good.out << good.err;
    const auto good_files = files();
    const auto failures = single_and_lasting({{Call::kMalloc, ENOMEM},
                                              {Call::kSocket, EMFILE},
                                              {Call::kBind, EADDRINUSE},
                                              {Call::kSendto, ECONNREFUSED},
                                              {Call::kRecv, ENOMEM},
                                              {Call::kOpen, EMFILE},
                                              {Call::kFwrite, ENOSPC},
                                              {Call::kPthreadCreate, EAGAIN},
                                              {Call::kApipcSend, ETIMEDOUT}});
    fail_in_turn(std::string("ruk-ipc ") + GetParam().name, failures, order, true, [&] {
        remove_files();
        Capture wire;
        const Finished run = run_to_end(launch);
        SCOPED_TRACE(order.description());
        EXPECT_TRUE(run.status == 0 || run.status == 1 || run.status == 3)
            << run.status << run.out << run.err;
        if (run.status == 0) {
            EXPECT_EQ(run.out, good.out) << run.err;
            bed::expect_greeting(Client(sockets, 0x51)); // a plain write is only handed over
            EXPECT_TRUE(GetParam().words[0] == "hello" || !wire.sent().empty());
        } else {
            EXPECT_TRUE(contains(run.err, "ruk-ipc: ")) << run.err;
        }
        if (run.status == 0 && contains(GetParam().name, "output")) {
            EXPECT_EQ(files(), good_files);
        }
    });
    bed::expect_greeting(Client(sockets, 0x51));
    rukd.stop();
    (void)card.stop();
}

INSTANTIATE_TEST_SUITE_P(
    Commands, IpcClient,
    testing::Values(ClientCommand{"hello", {"hello"}},
                    ClientCommand{"read", {"read", "12340", "20"}},
                    ClientCommand{"read_output", {"read", "12340", "20", "--output", "OUT"}},
                    ClientCommand{"write_ack", {"write-ack", "12340", "1", "2"}},
                    ClientCommand{"write", {"write", "12340", "1", "2"}},
                    ClientCommand{"update", {"update", "19", "FIRM"}}),
    [](const auto &test) { return test.param.name; });

} // namespace

} // namespace failing
