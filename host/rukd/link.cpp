#include "link.h"

#include "eth_raw/eth_raw.h"
#include "raw_msg/raw_msg.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <optional>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

const char *name_of(const Link &link) {
    return g_netdev_name[link.index];
}

bool is_running(pthread_t thread) {
    return thread != pthread_t{};
}

bool is_up(const Link &link) {
    return is_running(link.receive) && is_running(link.check);
}

// The threads first, as they use the socket. Who waits for a card is told that none has answered.
void take_down(Link &link) {
    for (pthread_t *thread : {&link.receive, &link.check}) {
        if (is_running(*thread)) {
            (void)pthread_cancel(*thread);
            (void)pthread_join(*thread, nullptr);
            *thread = pthread_t{};
        }
    }
    (void)RawMsgModuleUnInit(link.index); // -1 in every case
}

// What keeps the link from coming up.
struct Obstacle {
    bool is_receive_thread; // that alone: the right to real-time threads is missing
    int error;
};

// Nothing when the link is up; of an attempt that failed nothing is left.
std::optional<Obstacle> bring_up(Link &link) {
    errno = 0;
    (void)RawMsgModuleInit(link.index, &link.receive, &link.check); // 0 in every case
    if (is_up(link)) {
        return {};
    }
    const Obstacle obstacle{.is_receive_thread = is_running(link.check), .error = errno};
    take_down(link);
    return obstacle;
}

void complain(const Link &link, const Obstacle &obstacle) {
    if (obstacle.is_receive_thread) {
        (void)fprintf(stderr, "rukd: %s: no right to real-time threads (CAP_SYS_NICE)\n",
                      name_of(link));
        return;
    }
    const bool no_right = obstacle.error == EPERM || obstacle.error == EACCES;
    (void)fprintf(stderr, "rukd: %s: link not up: %s%s\n", name_of(link), strerror(obstacle.error),
                  no_right ? " (raw sockets need CAP_NET_RAW and CAP_NET_ADMIN)" : "");
}

// It may come up later, so that is no reason not to serve.
void warn_of_dead_interface(const Link &link) {
    ifreq request{};
    (void)std::string_view(name_of(link)).copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (ioctl(g_eth_init[link.index].sock_fd, SIOCGIFFLAGS, &request) == 0 &&
        (request.ifr_flags & IFF_RUNNING) == 0) {
        (void)fprintf(stderr, "rukd: %s is down or without a cable: requests fail until it is up\n",
                      name_of(link));
    }
}

// Number of the interface that the socket belongs to; -1 once that was removed.
int bound_interface(const Link &link) {
    sockaddr_ll address{};
    socklen_t size = sizeof address;
    const int result =
        getsockname(g_eth_init[link.index].sock_fd, reinterpret_cast<sockaddr *>(&address), &size);
    return result == 0 ? address.sll_ifindex : -1;
}

// Number of the interface of the link's name, 0: there is none. Nothing: that cannot be told now.
std::optional<int> named_interface(const Link &link) {
    errno = 0;
    const unsigned number = if_nametoindex(name_of(link));
    if (number == 0 && errno != ENODEV) {
        return {};
    }
    return static_cast<int>(number);
}

void bring_back(Link &link) {
    const std::optional<Obstacle> obstacle = bring_up(link);
    if (!obstacle) {
        link.is_failing = false;
        printf("rukd: %s is back\n", name_of(link));
        warn_of_dead_interface(link);
    } else if (!link.is_failing) {
        link.is_failing = true;
        complain(link, *obstacle);
        (void)fprintf(stderr, "rukd: %s: tried again until it is up\n", name_of(link));
    }
}

} // namespace

bool open_link(Link &link) {
    if (if_nametoindex(name_of(link)) == 0) {
        (void)fprintf(stderr, "rukd: %s: no such interface\n", name_of(link));
        return false;
    }
    const std::optional<Obstacle> obstacle = bring_up(link);
    if (obstacle) {
        complain(link, *obstacle);
        return false;
    }
    warn_of_dead_interface(link);
    return true;
}

void look_after(Link &link) {
    const std::optional<int> named = named_interface(link);
    if (!named || (is_up(link) && *named == bound_interface(link))) {
        return;
    }
    if (is_up(link)) {
        take_down(link);
        printf("rukd: %s was removed: requests fail until it is back\n", name_of(link));
    }
    if (*named != 0) {
        bring_back(link);
    }
}
