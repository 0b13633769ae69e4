// netdev_test.cpp - how links are opened and closed, and which of them let frames through, on a
// kernel that the test plays.
#include "eth_raw/eth_raw.h"

#include "eth_raw/link_state.h"
#include "eth_raw/received_frame.h"
#include "helpers/forked.h"
#include "helpers/log_lines.h"
#include "stand_ins/fake_netdev.h"
#include "stand_ins/fake_wire.h"
#include "stand_ins/lock_count.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>

namespace {

using Calls = std::vector<std::string>;

// Everything up to the socket, and up to the link.
const Calls kSocketCalls = {"socket", "SIOCGIFFLAGS eth1", "SIOCSIFFLAGS eth1 1103"};
const Calls kOpenCalls = {"socket", "SIOCGIFFLAGS eth1", "SIOCSIFFLAGS eth1 1103",
                          "SIOCGIFINDEX eth1", "bind"};

// Taken before anything in this process opens a link.
const bool g_table_was_empty =
    std::all_of(std::begin(g_eth_init), std::end(g_eth_init), [](const eth_init &record) {
        return record.index == 0 && record.flag == 0 && record.sock_fd == 0;
    });

class Netdev : public testing::Test {
protected:
    void SetUp() override {
        for (int index = 0; index < MAX_ETH; index++) {
            wire_open(index); // forgets the frames of the case before
            wire_close(index);
        }
        netdev_reset();
        errno = 0;
    }
    void TearDown() override {
        for (int index = 0; index < MAX_ETH; index++) {
            wire_open(index);
            wire_close(index);
        }
    }

    // Sends one frame on interface 1; its length, or -1.
    static int send_one(int index = 1) {
        uint8_t *buf = RawMsgBuffGet(1);
        testing::internal::CaptureStderr();
        errno = 0;
        const int sent = RawSockMsgSend(index, 1, 3, 0x1000, 1, 0, buf, 1);
        (void)testing::internal::GetCapturedStderr();
        RawMsgBuffFree(buf);
        return sent;
    }

    static void expect_up(int index = 1) {
        const size_t before = wire_sent().size();
        EXPECT_EQ(send_one(index), 94);
        EXPECT_EQ(wire_sent().size(), before + 1);
        EXPECT_TRUE(link_is_up(index));
    }

    // Link 1 takes a reply, and its socket is closed with it.
    static void expect_receives_and_is_closed() {
        wire_deliver(make_reply(0, 1, 2, 3, 0, 4, {5}));
        RawMsgHeader header{};
        uint8_t *payload = nullptr;
        EXPECT_EQ(raw_sock_recv(1, gRecvBuffer, header, payload), Received::kReply);
        EXPECT_EQ(RawSockMsgUnInit(1), -1);
        EXPECT_EQ(netdev_sockets(), std::vector<int>{});
    }

    // Sends fail at once, with an errno that lets nothing go out twice, and nothing goes out.
    static void expect_down(int index = 1) {
        const size_t before = wire_sent().size();
        EXPECT_EQ(send_one(index), -1);
        uint8_t *buf = RawMsgBuffGet(1);
        testing::internal::CaptureStderr();
        EXPECT_EQ(RawSockMsgSendAgain(index, buf, 94), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "sendto fail:: Bad file descriptor\n");
        RawMsgBuffFree(buf);
        EXPECT_EQ(wire_sent().size(), before);
        EXPECT_FALSE(link_is_up(index));
    }
};

// --- socket_init ---

TEST_F(Netdev, ASocketTakesAllProtocolsAndMakesItsInterfacePromiscuous) {
    const int socket = socket_init("eth1");
    EXPECT_EQ(netdev_sockets(), std::vector<int>{socket});
    EXPECT_TRUE(netdev_is_raw(socket));
    EXPECT_EQ(netdev_calls(), kSocketCalls); // the other flags stay as they are
}

TEST_F(Netdev, ASocketThatCannotBePreparedIsClosed) {
    struct Row {
        const char *call;
        const char *message;
        size_t calls;
    };
    for (const Row &row :
         {Row{"socket", "socket_init:#:socket() created failed.\n", 1},
          Row{"SIOCGIFFLAGS", "socket_init:#:get inferface flag failed.\n", 3},
          Row{"SIOCSIFFLAGS", "socket_init:#:set IFF_PROMISC flag failed.\n", 4}}) {
        netdev_reset();
        netdev_fails(row.call, EPERM);
        netdev_fails("close", EIO); // must not hide the reason
        EXPECT_EQ(test::messages_of([] { EXPECT_EQ(socket_init("eth1"), -1); }), row.message);
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(netdev_sockets(), std::vector<int>{}) << row.call;
        EXPECT_EQ(netdev_calls().size(), row.calls);
    }
}

TEST_F(Netdev, ANameThatNoInterfaceCanHaveIsNotCutToAnothers) {
    const std::string name(IF_NAMESIZE, 'e');
    (void)test::messages_of([&] { EXPECT_EQ(socket_init(name.c_str()), -1); });
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(netdev_calls(), (Calls{"socket", "close"}));
}

// --- socket_bind ---

TEST_F(Netdev, BindingFillsTheAddressAndLeavesItsOtherMembers) {
    const int socket = socket_init("eth2");
    sockaddr_ll address{};
    address.sll_halen = 6;
    address.sll_addr[5] = 0x77;
    EXPECT_EQ(socket_bind(&address, socket, "eth2"), 0);
    EXPECT_EQ(netdev_bound_to(socket), kFirstInterface + 2);
    EXPECT_EQ(address.sll_family, AF_PACKET);
    EXPECT_EQ(address.sll_protocol, htons(ETH_P_ALL));
    EXPECT_EQ(address.sll_ifindex, kFirstInterface + 2);
    EXPECT_EQ(address.sll_halen, 6);
    EXPECT_EQ(address.sll_addr[5], 0x77);
}

TEST_F(Netdev, BindingGivesTheFailedCallsResult) {
    const int socket = socket_init("eth1");
    sockaddr_ll address{};
    netdev_fails("SIOCGIFINDEX", ENODEV);
    EXPECT_EQ(test::messages_of([&] { EXPECT_EQ(socket_bind(&address, socket, "eth1"), -1); }),
              "socket_bind:#:get ifindex failed.\n");
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(address.sll_family, 0);
    netdev_fails("SIOCGIFINDEX", 0);
    netdev_fails("bind", ENETDOWN);
    EXPECT_EQ(test::messages_of([&] { EXPECT_EQ(socket_bind(&address, socket, "eth1"), -1); }),
              "socket_bind:#:bind failed\n");
    EXPECT_EQ(errno, ENETDOWN);
    EXPECT_EQ(netdev_sockets(), std::vector<int>{socket}); // its owner closes it
}

// --- init_netdev and netdev_init ---

TEST_F(Netdev, OpeningFillsTheRecord) {
    eth_init record{};
    const std::string log = test::messages_of([&] { EXPECT_EQ(init_netdev(&record, 1), 0); });
    EXPECT_EQ(netdev_calls(), kOpenCalls);
    const int socket = netdev_sockets().at(0);
    EXPECT_EQ(log, "eth_init[1].sock_fd = " + std::to_string(socket) + ".\n");
    EXPECT_EQ(record.index, 1U);
    EXPECT_STREQ(record.name, "eth1");
    EXPECT_EQ(record.flag, 1);
    EXPECT_EQ(record.sock_fd, socket);
    EXPECT_EQ(record.addr.sll_ifindex, kFirstInterface + 1);
    EXPECT_EQ(record.addr.sll_halen, 0);
}

TEST_F(Netdev, OpeningRefusesIndicesOutOfRange) {
    for (const uint32_t index : {3U, 0xFFFFFFFFU}) {
        eth_init record{};
        errno = 0;
        const std::string log =
            test::messages_of([&] { EXPECT_EQ(init_netdev(&record, index), -1); });
        EXPECT_EQ(errno, ENODEV);
        EXPECT_EQ(log, index == 3 ? "init_netdev:#:index(3) MAX_ETH(3).\n"
                                  : "init_netdev:#:index(-1) MAX_ETH(3).\n");
        EXPECT_EQ(record.flag, 0);
    }
    EXPECT_EQ(netdev_calls(), Calls{});
}

TEST_F(Netdev, OpeningReportsWhatFailed) {
    eth_init record{};
    netdev_fails("SIOCGIFFLAGS", ENODEV);
    EXPECT_EQ(test::messages_of([&] { EXPECT_EQ(init_netdev(&record, 1), -1); }),
              "socket_init:#:get inferface flag failed.\n"
              "init_netdev:#:socket_init() failed(-1).\n");
    EXPECT_EQ(record.flag, 0);
    EXPECT_EQ(netdev_sockets(), std::vector<int>{});
    netdev_fails("SIOCGIFFLAGS", 0);
    netdev_fails("bind", ENETDOWN);
    const std::string log = test::messages_of([&] { EXPECT_EQ(init_netdev(&record, 1), -1); });
    EXPECT_TRUE(log.ends_with(".\nsocket_bind:#:bind failed\nsocket_bind fail\n")) << log;
    EXPECT_EQ(errno, ENETDOWN);
    EXPECT_EQ(record.flag, 1); // the socket is open, and whose it is is told
    EXPECT_EQ(netdev_sockets(), std::vector<int>{record.sock_fd});
}

TEST_F(Netdev, OpensTheFirstInterfacesInTurn) {
    eth_init records[3] = {};
    EXPECT_EQ(test::messages_of([&] { EXPECT_EQ(netdev_init(records, 2), 0); }), "");
    ASSERT_EQ(netdev_sockets().size(), 2U);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(records[i].sock_fd, netdev_sockets()[static_cast<size_t>(i)]);
        EXPECT_EQ(netdev_bound_to(records[i].sock_fd), kFirstInterface + i);
        EXPECT_EQ(records[i].index, static_cast<uint32_t>(i));
    }
    EXPECT_EQ(records[2].flag, 0);
}

TEST_F(Netdev, StopsAtTheFirstFailureAndLeavesOpenWhatIsOpen) {
    struct Row {
        const char *call;
        const char *log;
        size_t open;
    };
    for (const Row &row : {Row{"SIOCSIFFLAGS",
                               "socket_init:#:set IFF_PROMISC flag failed.\n"
                               "netdev_init:#:socket_init() failed(-1).\n",
                               0},
                           Row{"bind", "socket_bind:#:bind failed\n", 1}}) {
        eth_init records[3] = {};
        netdev_reset();
        netdev_fails(row.call, EACCES);
        EXPECT_EQ(test::messages_of([&] { EXPECT_EQ(netdev_init(records, 3), -1); }), row.log);
        EXPECT_EQ(netdev_sockets().size(), row.open);
        EXPECT_EQ(records[1].flag, 0);
    }
}

TEST_F(Netdev, RefusesMoreInterfacesThanThereAre) {
    eth_init records[4] = {};
    EXPECT_EQ(test::messages_of([&] { EXPECT_EQ(netdev_init(records, 4), -1); }),
              "netdev_init:#:index(4) MAX_ETH(3).\n");
    EXPECT_EQ(netdev_init(records, 0), 0);
    EXPECT_EQ(netdev_calls(), Calls{});
}

// --- the links of the table ---

TEST_F(Netdev, ALinkIsUpFromItsOpeningToItsClosing) {
    expect_down();
    EXPECT_EQ(RawSockMsgInit(1), 0);
    expect_up();
    EXPECT_EQ(wire_descriptors().back(), g_eth_init[1].sock_fd);
    expect_down(0);
    expect_down(2);
    EXPECT_EQ(RawSockMsgUnInit(1), -1); // by definition
    expect_down();
    EXPECT_EQ(netdev_sockets(), std::vector<int>{});
    EXPECT_EQ(g_eth_init[1].flag, 1); // the record stays filled
}

TEST_F(Netdev, ALinkOfTheTableIsUpHoweverItWasOpened) {
    EXPECT_EQ(init_netdev(&g_eth_init[1], 1), 0);
    expect_up();
    EXPECT_EQ(netdev_init(g_eth_init, 3), 0);
    for (int index = 0; index < MAX_ETH; index++) {
        expect_up(index);
        EXPECT_EQ(netdev_bound_to(g_eth_init[index].sock_fd), kFirstInterface + index);
    }
}

// A host may have closed its standard input.
TEST_F(Netdev, ASocketWithTheNumberZeroIsOneLikeAnyOther) {
    eth_init record{};
    netdev_zero_is_free();
    (void)test::messages_of([&] { EXPECT_EQ(init_netdev(&record, 1), 0); });
    EXPECT_EQ(netdev_bound_to(0), kFirstInterface + 1);
    netdev_reset();
    netdev_zero_is_free();
    (void)test::messages_of([&] { EXPECT_EQ(netdev_init(&record, 1), 0); });
    EXPECT_EQ(netdev_bound_to(0), kFirstInterface);
    netdev_reset();
    netdev_zero_is_free();
    EXPECT_EQ(RawSockMsgInit(1), 0);
    expect_up();
    EXPECT_EQ(wire_descriptors().back(), 0);
    expect_receives_and_is_closed();
}

// Its descriptor may be somebody else's by then.
TEST_F(Netdev, AClosedLinkIsNeitherClosedNorUsedAgain) {
    EXPECT_EQ(RawSockMsgInit(1), 0);
    EXPECT_EQ(RawSockMsgUnInit(1), -1);
    (void)netdev_calls();
    EXPECT_EQ(RawSockMsgUnInit(1), -1);
    EXPECT_EQ(netdev_calls(), Calls{});
    wire_deliver(make_reply(0, 1, 2, 3, 0, 4, {5})); // on the descriptor's new owner
    RawMsgHeader header{};
    uint8_t *payload = nullptr;
    EXPECT_EQ(raw_sock_recv(1, gRecvBuffer, header, payload), Received::kNothing);
    EXPECT_EQ(RawSockMsgUnInit(3), -1);
    EXPECT_EQ(RawSockMsgUnInit(0xFFFFFFFF), -1);
    EXPECT_EQ(netdev_calls(), Calls{});
}

TEST_F(Netdev, AClosedLinkCanBeOpenedAgainAndClosedOnceMore) {
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(RawSockMsgInit(1), 0);
        expect_up();
        EXPECT_EQ(netdev_sockets(), std::vector<int>{g_eth_init[1].sock_fd});
        EXPECT_EQ(RawSockMsgUnInit(1), -1);
        expect_down();
    }
}

TEST_F(Netdev, OpeningAnOpenLinkTakesAnotherSocket) {
    EXPECT_EQ(RawSockMsgInit(1), 0);
    const int first = g_eth_init[1].sock_fd;
    EXPECT_EQ(RawSockMsgInit(1), 0);
    expect_up();
    EXPECT_EQ(netdev_sockets(), (std::vector<int>{first, g_eth_init[1].sock_fd}));
    EXPECT_EQ(wire_descriptors().back(), g_eth_init[1].sock_fd);
}

TEST_F(Netdev, ALinkWhoseSocketIsNotBoundIsNotUp) {
    netdev_fails("bind", ENETDOWN);
    const std::string log = test::messages_of([] { EXPECT_EQ(RawSockMsgInit(1), -1); });
    EXPECT_TRUE(log.ends_with("socket_bind fail\ninit_netdev(1) failed(-1).\n")) << log;
    expect_down();
    EXPECT_EQ(RawSockMsgUnInit(1), -1);
    EXPECT_EQ(netdev_sockets(), std::vector<int>{}); // closed all the same, once
    (void)netdev_calls();
    EXPECT_EQ(RawSockMsgUnInit(1), -1);
    EXPECT_EQ(netdev_calls(), Calls{});
    netdev_fails("bind", 0);
    EXPECT_EQ(RawSockMsgInit(1), 0);
    expect_up();
}

TEST_F(Netdev, ALinkThatWasUpIsNotUpOnceItsNewSocketIsNotBound) {
    EXPECT_EQ(RawSockMsgInit(1), 0);
    netdev_fails("SIOCGIFINDEX", ENODEV);
    (void)test::messages_of([] { EXPECT_EQ(RawSockMsgInit(1), -1); });
    expect_down();
}

TEST_F(Netdev, ALinkWhoseSendingIsBarredStillReceivesAndIsClosed) {
    EXPECT_EQ(RawSockMsgInit(1), 0);
    link_bar_sending(1);
    expect_down();
    expect_receives_and_is_closed();
    link_bar_sending(1); // does not open it again
    (void)netdev_calls();
    EXPECT_EQ(RawSockMsgUnInit(1), -1);
    EXPECT_EQ(netdev_calls(), Calls{});
}

// The thread sanitizer watches the records.
TEST_F(Netdev, OthersMaySendAndReceiveWhileALinkIsClosedAndOpened) {
    std::atomic<bool> end{false};
    std::atomic<int> sent{0};
    testing::internal::CaptureStderr(); // the sends that fail
    std::thread sender([&] {
        uint8_t *buf = RawMsgBuffGet(1);
        while (!end) {
            errno = 0;
            sent += RawSockMsgSendAgain(1, buf, 94) == 94 ? 1 : 0;
        }
        RawMsgBuffFree(buf);
    });
    std::thread receiver([&] {
        while (!end) {
            (void)link_receiving_socket(1);
        }
    });
    for (int i = 0; i < 100 || sent < 10; i++) {
        EXPECT_EQ(RawSockMsgInit(1), 0);
        if (i % 3 == 0) {
            EXPECT_EQ(RawSockMsgInit(1), 0);
        }
        std::this_thread::yield();
        EXPECT_EQ(RawSockMsgUnInit(1), -1);
    }
    end = true;
    sender.join();
    receiver.join();
    (void)testing::internal::GetCapturedStderr();
    for (const int descriptor : wire_descriptors()) {
        EXPECT_EQ(netdev_bound_to(descriptor), kFirstInterface + 1);
    }
}

// The lock was in the hands of a thread that the child does not have.
TEST_F(Netdev, TheTableIsEmptyAtProgramStart) {
    EXPECT_TRUE(g_table_was_empty);
    EXPECT_STREQ(g_netdev_name[0], "eth0");
    EXPECT_STREQ(g_netdev_name[1], "eth1");
    EXPECT_STREQ(g_netdev_name[2], "eth2");
}

TEST_F(Netdev, RecordsAreThoseOfTheTableAlone) {
    EXPECT_EQ(link_record(-1), nullptr);
    EXPECT_EQ(link_record(0), &g_eth_init[0]);
    EXPECT_EQ(link_record(MAX_ETH - 1), &g_eth_init[MAX_ETH - 1]);
    EXPECT_EQ(link_record(MAX_ETH), nullptr);
    EXPECT_EQ(link_receiving_socket(MAX_ETH), -1);
}

// Hosts fill records themselves; of an empty one descriptor 0 is somebody else's.
TEST_F(Netdev, ARecordHasASocketByItsFlagOrByItsDescriptor) {
    EXPECT_EQ(RawSockMsgInit(1), 0);
    eth_init &record = g_eth_init[1];
    const int socket = record.sock_fd;
    EXPECT_EQ(link_receiving_socket(1), socket);
    record.flag = 0;
    EXPECT_TRUE(link_is_up(1));
    record.sock_fd = 1;
    EXPECT_TRUE(link_is_up(1));
    EXPECT_EQ(link_receiving_socket(1), 1);
    record.sock_fd = 0;
    EXPECT_FALSE(link_is_up(1));
    record.flag = 1;
    EXPECT_TRUE(link_is_up(1));
    record.sock_fd = socket;
}

// Nobody is sending, nor cancelled, while a descriptor changes its meaning.
TEST_F(Netdev, ALinkChangesUnderItsLock) {
    test::LockUse use = test::locks_of([] { EXPECT_EQ(RawSockMsgInit(1), 0); });
    EXPECT_GE(use.taken, 1);
    EXPECT_EQ(use.kept, 0);
    sockaddr_ll address{};
    eth_init own{};
    use = test::locks_of([&] { link_fill(own, 1, 5, address, true); });
    EXPECT_EQ(use.taken, 0);
    use =
        test::locks_of([&] { link_fill(g_eth_init[1], 1, g_eth_init[1].sock_fd, address, true); });
    EXPECT_EQ(use.taken, 1);
    use = test::locks_of([] { link_bar_sending(1); });
    EXPECT_EQ(use.taken, 1);
    use = test::locks_of([] { link_close(1); });
    EXPECT_EQ(use.deepest, 2); // under it that of the network which the test plays
    EXPECT_EQ(use.cancellable, 0);
    EXPECT_EQ(use.kept, 0);
}

TEST_F(Netdev, AForkedChildSendsAndClosesAlthoughItsParentWasSending) {
    EXPECT_EQ(RawSockMsgInit(1), 0);
    (void)pthread_mutex_lock(&g_eth_init[1].send_lock);
    const test::Ended child = test::run_forked([] {
        (void)alarm(10);
        expect_up();
        (void)RawSockMsgUnInit(1);
    });
    (void)pthread_mutex_unlock(&g_eth_init[1].send_lock);
    EXPECT_EQ(child.status, test::kReturned);
    expect_up();
}

} // namespace
