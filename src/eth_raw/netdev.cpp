#include "eth_raw/eth_raw.h"

#include "base/errno_keeper.h"
#include "eth_raw/link_state.h"
#include "log/write.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Ask the kernel about an interface by name. A name that does not fit is nobody's name; cut short
// it might be another interface's.
int interface_ioctl(int sock_fd, unsigned long what, const char *name, ifreq &request) {
    request = {};
    const size_t name_len = strlen(name);
    if (name_len >= sizeof request.ifr_name) {
        errno = ENODEV;
        return -1;
    }
    memcpy(request.ifr_name, name, name_len);
    return ioctl(sock_fd, what, &request);
}

void close_keeping_errno(int sock_fd) {
    const ErrnoKeeper keep_errno; // the caller wants the reason of the failure before this
    (void)close(sock_fd);
}

// A socket that cannot be bound stays recorded and open: RawSockMsgUnInit closes it.
int bind_and_fill(eth_init &record, uint32_t index, int sock_fd) {
    sockaddr_ll address = record.addr;
    const int result = socket_bind(&address, sock_fd, g_netdev_name[index]);
    link_fill(record, index, sock_fd, address, result >= 0);
    return result;
}

} // namespace

int socket_init(const char *name) {
    const int sock_fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
    if (sock_fd < 0) {
        LOG("%s:%d:socket() created failed.\n", __func__, __LINE__);
        return -1;
    }
    ifreq request{};
    if (interface_ioctl(sock_fd, SIOCGIFFLAGS, name, request) < 0) {
        LOG("%s:%d:get inferface flag failed.\n", __func__, __LINE__);
        close_keeping_errno(sock_fd);
        return -1;
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_PROMISC);
    if (ioctl(sock_fd, SIOCSIFFLAGS, &request) < 0) {
        LOG("%s:%d:set IFF_PROMISC flag failed.\n", __func__, __LINE__);
        close_keeping_errno(sock_fd);
        return -1;
    }
    return sock_fd;
}

int socket_bind(struct sockaddr_ll *address, int sock_fd, const char *name) {
    ifreq request{};
    int result = interface_ioctl(sock_fd, SIOCGIFINDEX, name, request);
    if (result < 0) {
        LOG("%s:%d:get ifindex failed.\n", __func__, __LINE__);
        return result;
    }
    address->sll_ifindex = request.ifr_ifindex;
    address->sll_family = AF_PACKET;
    address->sll_protocol = htons(ETH_P_ALL);
    result = bind(sock_fd, reinterpret_cast<const sockaddr *>(address), sizeof *address);
    if (result < 0) {
        LOG("%s:%d:bind failed\n", __func__, __LINE__);
    }
    return result;
}

int init_netdev(eth_init *record, uint32_t index) {
    if (index >= MAX_ETH) {
        LOG("%s:%d:index(%d) MAX_ETH(%d).\n", __func__, __LINE__, static_cast<int>(index), MAX_ETH);
        errno = ENODEV;
        return -1;
    }
    const int sock_fd = socket_init(g_netdev_name[index]);
    if (sock_fd < 0) {
        LOG("%s:%d:socket_init() failed(%d).\n", __func__, __LINE__, sock_fd);
        return -1;
    }
    LOG("eth_init[%d].sock_fd = %d.\n", static_cast<int>(index), sock_fd);
    const int result = bind_and_fill(*record, index, sock_fd);
    if (result < 0) {
        LOG("socket_bind fail\n");
    }
    return result;
}

int netdev_init(eth_init *records, uint32_t count) {
    if (count > MAX_ETH) {
        LOG("%s:%d:index(%d) MAX_ETH(%d).\n", __func__, __LINE__, static_cast<int>(count), MAX_ETH);
        return -1;
    }
    for (uint32_t index = 0; index < count; index++) {
        const int sock_fd = socket_init(g_netdev_name[index]);
        if (sock_fd < 0) {
            LOG("%s:%d:socket_init() failed(%d).\n", __func__, __LINE__, sock_fd);
            return -1;
        }
        const int result = bind_and_fill(records[index], index, sock_fd);
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

// The send lock needs no set-up: it is ready from the start, and in a child of fork once more. Made
// here it would be made under the hands of who sends while the link is opened again.
int RawSockMsgInit(uint32_t index) {
    // An index out of range has no record, and is refused before one is looked for.
    const int result = init_netdev(link_record(static_cast<int>(index)), index);
    if (result < 0) {
        LOG("init_netdev(%d) failed(%d).\n", static_cast<int>(index), result);
        return -1;
    }
    return 0;
}

int RawSockMsgUnInit(uint32_t index) {
    if (link_record(static_cast<int>(index)) != nullptr) {
        link_close(static_cast<int>(index));
    }
    return -1;
}
