// What a host process keeps for itself: its descriptors.
#include "tests/system/bed/bed.h"
#include "tests/system/storm/host.h"

#include "board/board.h"
#include "eth_raw/eth_raw.h"
#include "raw_msg/raw_msg.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <unistd.h>

namespace bed {

namespace {

class HostProcess : public SystemTest {};

TEST_F(HostProcess, ItsSocketsDoNotReachTheShellsItStarts) {
    const Host host;
    const Directory directory;
    const std::string socket =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(g_eth_init[0].sock_fd));
    ASSERT_TRUE(socket.starts_with("socket:[")) << socket;
    const std::string listing = directory.path("listing");
    ASSERT_EQ(my_system(("ls -l /proc/self/fd > " + listing).c_str()), 0);
    const Bytes text = content_of(listing);
    const std::string seen(text.begin(), text.end());
    EXPECT_EQ(count(seen, " 0 -> "), 1) << seen; // it did list descriptors
    EXPECT_EQ(count(seen, socket), 0) << seen;
}

// Standard input replaced by a socket for its owner's life.
class SocketAsInput {
public:
    SocketAsInput() : saved_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
        EXPECT_EQ(dup2(ends[1], STDIN_FILENO), STDIN_FILENO);
        (void)close(ends[1]);
        other_end_ = ends[0];
    }
    SocketAsInput(const SocketAsInput &) = delete;
    SocketAsInput &operator=(const SocketAsInput &) = delete;
    ~SocketAsInput() {
        (void)dup2(saved_, STDIN_FILENO);
        (void)close(saved_);
        (void)close(other_end_);
    }
    [[nodiscard]] bool is_silent() const {
        uint8_t byte = 0;
        return recv(other_end_, &byte, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
    }

private:
    int saved_;
    int other_end_ = -1;
};

TEST_F(HostProcess, ALinkThatIsDownLeavesDescriptorZeroAlone) {
    const SocketAsInput input;
    memcpy(g_netdev_name[1], "eth9", sizeof "eth9"); // there is no such interface
    for (const int index : {1, 2, 3, -1, INT_MIN, INT_MAX}) {
        pthread_t receive{};
        pthread_t check{};
        if (index != 2) { // never brought up at all
            EXPECT_EQ(RawMsgModuleInit(index, &receive, &check), 0);
        }
        EXPECT_EQ(receive, pthread_t{});
        EXPECT_EQ(check, pthread_t{});
        const uint8_t data = 1;
        EXPECT_EQ(RawSockSendMsg(index, 1, 3, 0x7040, kWrite, &data, 1), 0);
        EXPECT_EQ(RawSockSendMsgWithAck(0, index, 1, 3, 0x7040, kWriteAck, &data, 1), -1);
        EXPECT_EQ(RawMsgModuleUnInit(index), -1);
        EXPECT_TRUE(input.is_silent()) << index;
        EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0) << index; // still open
    }
    memcpy(g_netdev_name[1], "eth1", sizeof "eth1");
}

} // namespace

} // namespace bed
