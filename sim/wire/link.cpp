#include "wire/link.h"

#include <arpa/inet.h>
#include <cerrno>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <bit>

#include "failure.h"

namespace card {

namespace {

// Room for the longest burst that nobody acknowledges: a bus block of 64 MiB in frames of 8026
// bytes, each of which takes about 17 KiB in the kernel. The kernel doubles what it is asked for.
constexpr int kReceiveBuffer = 80 * 1024 * 1024;

// The socket calls take a general address record; this is the one place that says ours is one.
const sockaddr *general(const sockaddr_ll &address) {
    return std::bit_cast<const sockaddr *>(&address);
}

bool set_option(int fd, int level, int option, const void *value, socklen_t size) {
    return setsockopt(fd, level, option, value, size) == 0;
}

bool join_promiscuous(int fd, int index) {
    packet_mreq request = {};
    request.mr_ifindex = index;
    request.mr_type = PACKET_MR_PROMISC;
    return set_option(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &request, sizeof request);
}

bool bind_to(int fd, int index) {
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = index;
    return bind(fd, general(address), sizeof address) == 0;
}

// Without these options the card works, only less well: it does not matter when they fail.
void tune(int fd) {
    const int size = kReceiveBuffer;
    if (!set_option(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size)) {
        (void)set_option(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    const int on = 1;
    (void)set_option(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
}

} // namespace

std::string link_open(const std::string &name, Link &out) {
    const unsigned index = if_nametoindex(name.c_str());
    if (index == 0) {
        return failure("link", "find interface", name);
    }
    // Protocol 0 receives nothing: no frame of another interface slips in before the bind.
    Fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        const char *hint = errno == EPERM ? " (needs CAP_NET_RAW)" : "";
        return failure("link", "open raw socket for", name) + hint;
    }
    tune(fd.get());
    if (!join_promiscuous(fd.get(), static_cast<int>(index))) {
        return failure("link", "set promiscuous mode on", name);
    }
    if (!bind_to(fd.get(), static_cast<int>(index))) {
        return failure("link", "bind to", name);
    }
    out.name = name;
    out.socket = std::move(fd);
    return "";
}

bool link_is_up(const Link &link) {
    ifreq request = {};
    link.name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return ioctl(link.socket.get(), SIOCGIFFLAGS, &request) == 0 &&
           (request.ifr_flags & IFF_UP) != 0;
}

Received link_receive(const Link &link, MutableBytes buffer, size_t &size) {
    sockaddr_ll from = {};
    socklen_t from_len = sizeof from;
    const ssize_t got = recvfrom(link.socket.get(), buffer.data(), buffer.size(), 0,
                                 std::bit_cast<sockaddr *>(&from), &from_len);
    if (got < 0) {
        const bool nothing = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        return nothing ? Received::kNothing : Received::kError;
    }
    if (from.sll_pkttype == PACKET_OUTGOING) {
        return Received::kOutgoing;
    }
    size = static_cast<size_t>(got);
    return Received::kFrame;
}

void link_stop_waiting(const Link &link) {
    const timeval shortest = {.tv_sec = 0, .tv_usec = 1}; // 0 would mean for ever
    (void)set_option(link.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &shortest, sizeof shortest);
}

bool link_send(const Link &link, Bytes frame) {
    ssize_t put = 0;
    do {
        put = send(link.socket.get(), frame.data(), frame.size(), 0);
    } while (put < 0 && errno == EINTR);
    return put == static_cast<ssize_t>(frame.size());
}

uint32_t link_take_kernel_drops(const Link &link) {
    tpacket_stats statistics = {};
    socklen_t size = sizeof statistics;
    if (getsockopt(link.socket.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &size) != 0) {
        return 0;
    }
    return statistics.tp_drops;
}

} // namespace card
