// packet_socket.h - a raw socket on one interface, opened the way the product opens its own.
#ifndef BENCH_PACKET_SOCKET_H
#define BENCH_PACKET_SOCKET_H

#include "die.h"

#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <unistd.h>

struct PacketSocket {
    int fd;
    sockaddr_ll address;
};

/** Bound to all protocols; promiscuous, because no interface has the protocol's addresses. */
inline PacketSocket open_packet_socket(const char *interface) {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
    if (fd < 0) {
        die("open a raw socket");
    }
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    if (address.sll_ifindex == 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        die(interface);
    }
    packet_mreq promiscuous{};
    promiscuous.mr_ifindex = address.sll_ifindex;
    promiscuous.mr_type = PACKET_MR_PROMISC;
    if (setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promiscuous, sizeof promiscuous) != 0) {
        die("listen to every address");
    }
    return {.fd = fd, .address = address};
}

/** Frames must never leave a machine: a network that is not the test bed's has no such interface.
 */
inline void require_testbed(const char *marker) {
    if (if_nametoindex(marker) == 0) {
        die_of("not inside the test bed, nothing sent; use scripts/bench");
    }
}

#endif
