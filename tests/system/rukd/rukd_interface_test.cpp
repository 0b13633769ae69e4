// The service's interface is removed and made anew while it serves.
#include "tests/system/bed/cable.h"
#include "tests/system/bed/service.h"

#include "tests/board/process.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <net/if.h>
#include <pwd.h>
#include <sys/resource.h>
#include <thread>

namespace bed {

namespace {

class ServiceInterface : public SystemTest {
protected:
    // What reading the register that a card was told to have brings.
    Message read(const Client &client) {
        EXPECT_TRUE(client.send({.code = 0x00, .slot = 2, .addr = 0x40, .len = 8}));
        const Bytes reply = client.receive();
        return reply.size() >= kMessageHead ? from_bytes(reply) : Message{.result = 1};
    }
    void expect_service(const Client &client) {
        Card card; // its memory is new, as its interface is
        ASSERT_TRUE(client.send({.code = 0x02, .slot = 2, .addr = 0x40, .len = 8, .data = data}));
        EXPECT_EQ(from_bytes(client.receive()).result, 0U);
        const Message reply = read(client);
        EXPECT_EQ(reply.result, 0U);
        EXPECT_EQ(part(reply.data, 0, 8), data);
        (void)card.stop();
    }

    Directory directory;
    std::string sockets = directory.path("m");
    Cable cable;
    const Bytes data = pattern(8);
};

TEST_F(ServiceInterface, IsFoundAgainWhenItIsBack) {
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    const Client client(sockets, 0x50);
    expect_service(client);
    cable.remove();
    ASSERT_TRUE(rukd.await_output("\nrukd: eth0 was removed: requests fail until it is back\n"));
    EXPECT_EQ(read(client).result, 0xFFFFFFFF);
    cable.make();
    ASSERT_TRUE(rukd.await_output("\nrukd: eth0 is back\n"));
    expect_service(client);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
    EXPECT_EQ(count(rukd.out(), "rukd: eth0 was removed"), 1);
    EXPECT_EQ(count(rukd.out(), "rukd: eth0 is back"), 1);
}

// Under the number that it had, too: the socket has lost it all the same.
TEST_F(ServiceInterface, IsFoundAgainWhenNobodySawItGone) {
    for (const bool keeps_number : {false, true}) {
        Process rukd(rukd_command(sockets));
        ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
        const Client client(sockets, 0x50);
        const unsigned number = if_nametoindex("eth0");
        rukd.send(SIGSTOP);
        cable.remove();
        cable.make(keeps_number ? number : 0);
        EXPECT_EQ(if_nametoindex("eth0") == number, keeps_number);
        rukd.send(SIGCONT);
        ASSERT_TRUE(rukd.await_output("rukd: eth0 is back\n"));
        expect_service(client);
        rukd.send(SIGTERM);
        EXPECT_EQ(rukd.wait(), 0) << rukd.err();
    }
}

// Another one that gets the name is the one to serve.
TEST_F(ServiceInterface, IsTheOneThatHasTheName) {
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    const Client client(sockets, 0x50);
    ASSERT_TRUE(ip({"link", "set", "eth0", "down"}));
    ASSERT_TRUE(ip({"link", "set", "eth0", "name", "other"}));
    ASSERT_TRUE(rukd.await_output("rukd: eth0 was removed"));
    ASSERT_TRUE(ip({"link", "del", "other"}));
    cable.make();
    ASSERT_TRUE(rukd.await_output("rukd: eth0 is back\n"));
    expect_service(client);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

long descriptors_of(const Process &process) {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/" + std::to_string(process.pid()) + "/fd"),
                         directory_iterator());
}

// As the user that the process belongs to, who may limit it without any right of root's.
void limit_threads(const Process &process, rlim_t threads) {
    test::Child limiter([&] {
        const passwd *user = getpwnam("nobody");
        rlimit limit{};
        if (user == nullptr || setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0 ||
            prlimit(process.pid(), RLIMIT_NPROC, nullptr, &limit) != 0) {
            return 1;
        }
        limit.rlim_cur = std::min(threads, limit.rlim_max);
        return prlimit(process.pid(), RLIMIT_NPROC, &limit, nullptr) == 0 ? 0 : 2;
    });
    ASSERT_EQ(limiter.wait(), 0);
}

template <typename Condition>
bool await(Condition condition) {
    const auto give_up = std::chrono::steady_clock::now() + kHang;
    while (!condition() && std::chrono::steady_clock::now() < give_up) {
        std::this_thread::sleep_for(10ms);
    }
    return condition();
}

// The limit on threads is for users: their service has kept the rights that opening takes, no more.
TEST_F(ServiceInterface, IsTriedAgainUntilItCanBeOpened) {
    std::filesystem::create_directory(sockets);
    std::filesystem::permissions(sockets, std::filesystem::perms::all);
    std::filesystem::permissions(directory.path("."), std::filesystem::perms::all);
    Process rukd(rukd_command(sockets, {"--user", "nobody"}));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    const long descriptors = descriptors_of(rukd);
    limit_threads(rukd, 0);
    cable.remove();
    cable.make();
    EXPECT_TRUE(await([&] { return count(rukd.out(), "failed to create thread") >= 2 * 2; }));
    EXPECT_EQ(count(rukd.err(),
                    "rukd: eth0: link not up: Resource temporarily unavailable\nrukd: eth0: tried "
                    "again until it is up\n"),
              1)
        << rukd.err();
    EXPECT_EQ(count(rukd.out(), "rukd: eth0 is back"), 0);
    limit_threads(rukd, RLIM_INFINITY);
    EXPECT_TRUE(rukd.await_output("rukd: eth0 is back\n")) << rukd.err();
    EXPECT_EQ(descriptors_of(rukd), descriptors);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

// Each request is answered once, whatever happens to its interface meanwhile.
TEST_F(ServiceInterface, MayGoWhileRequestsWait) {
    constexpr int kTimes = 3;
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    const Client client(sockets, 0x50);
    std::atomic<bool> goes_on{true};
    std::atomic<int> answered{0};
    std::thread asker([&] { // of no card
        while (goes_on) {
            EXPECT_EQ(read(client).result, 0xFFFFFFFF);
            answered++;
        }
    });
    for (int i = 1; i <= kTimes && !HasFailure(); i++) {
        const int before = answered;
        EXPECT_TRUE(await([&] { return answered > before; }));
        cable.remove();
        cable.make();
        EXPECT_TRUE(await([&] { return count(rukd.out(), "rukd: eth0 is back\n") == i; }));
    }
    goes_on = false;
    asker.join();
    expect_greeting(client); // a reply too many would come before this one's
    expect_service(client);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

} // namespace

} // namespace bed
