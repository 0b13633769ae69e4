// Sockets and interfaces in the place of the kernel's, and the wire behind them.
#include "calls/link.h"
#include "memory/accesses.h"
#include "memory/product_memory.h"
#include "scheduler/choices.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/card.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <memory>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

namespace sim {

WireCounters g_wire;

namespace {

constexpr int kAnyInterface = 0;
constexpr int kFirstDescriptor = 3;

struct Interface {
    int number; // the kernel's; 0 = there is none
    bool is_up;
};

struct Socket {
    int bound_to = kAnyInterface; // number of an interface
    bool receives = true;
    int error = 0;
    std::deque<Frame> frames;
};

struct Descriptor {
    bool is_open = false;
    bool is_foreign = false;
    const char *what = "";
    std::shared_ptr<Socket> socket;
};

Interface g_interfaces[kInterfaces];
int g_next_number;
std::vector<Descriptor> g_descriptors;

int open_descriptor(Descriptor opened) {
    opened.is_open = true;
    size_t place = kFirstDescriptor;
    while (place < g_descriptors.size() && g_descriptors[place].is_open) {
        place += 1;
    }
    if (place >= g_descriptors.size()) {
        g_descriptors.resize(place + 1);
    }
    g_descriptors[place] = std::move(opened);
    return static_cast<int>(place);
}

Descriptor *descriptor(int fd) {
    const bool is_open = fd >= kFirstDescriptor && static_cast<size_t>(fd) < g_descriptors.size() &&
                         g_descriptors[static_cast<size_t>(fd)].is_open;
    return is_open ? &g_descriptors[static_cast<size_t>(fd)] : nullptr;
}

// Null with errno: not an open socket. Somebody else's descriptor is a fault at once.
std::shared_ptr<Socket> socket_at(int fd, const char *call) {
    Descriptor *found = descriptor(fd);
    if (found == nullptr) {
        errno = EBADF;
        return nullptr;
    }
    if (found->is_foreign) {
        fail("%s: descriptor %d belongs to somebody else", call, fd);
    }
    if (found->socket == nullptr) {
        errno = ENOTSOCK;
    }
    return found->socket;
}

int index_of_number(int number) {
    for (int i = 0; i < kInterfaces; i++) {
        if (g_interfaces[i].number == number && number != 0) {
            return i;
        }
    }
    return -1;
}

int index_of_name(const char *name) {
    static const char *const kNames[kInterfaces] = {"eth0", "eth1", "eth2"};
    for (int i = 0; i < kInterfaces; i++) {
        if (strcmp(kNames[i], name) == 0 && g_interfaces[i].number != 0) {
            return i;
        }
    }
    return -1;
}

void for_each_socket(int number, const std::function<void(Socket &)> &action) {
    for (Descriptor &d : g_descriptors) {
        if (d.is_open && d.socket != nullptr && d.socket->receives &&
            (d.socket->bound_to == number || d.socket->bound_to == kAnyInterface)) {
            action(*d.socket);
        }
    }
}

void deliver(int index, const Frame &frame) {
    if (g_interfaces[index].number == 0 || !g_interfaces[index].is_up) {
        return;
    }
    for_each_socket(g_interfaces[index].number, [&](Socket &socket) {
        socket.frames.push_back(frame);
        wake(&socket);
    });
}

// One byte becomes another, so that whoever checks the sum must see it.
void damage(Frame &frame) {
    constexpr uint32_t kSummedFrom = 16;
    const uint32_t where =
        kSummedFrom + g_choices.pick(static_cast<uint32_t>(frame.size()) - kSummedFrom - 2);
    const bool is_length = where >= 26 && where <= 28;
    const size_t place = is_length ? kSummedFrom : where; // a wrong length changes what is summed
    frame[place] = static_cast<uint8_t>(frame[place] + 1 + g_choices.pick(255));
}

Time delay() {
    static const Time kDelays[] = {50 * kMicrosecond, 20 * kMicrosecond, 200 * kMicrosecond,
                                   2 * kMillisecond};
    if (fault(g_settings.slow_one_in)) {
        g_wire.faults += 1;
        return (1 + g_choices.pick(400)) * kMillisecond;
    }
    return kDelays[g_settings.keeps_order ? 0 : g_choices.pick(std::size(kDelays))];
}

// A frame on its way, in either direction.
void carry(Frame frame, const std::function<void(const Frame &)> &arrive) {
    uint32_t copies = 1;
    if (fault(g_settings.lose_one_in)) {
        SIM_TELL("  wire: loses the frame");
        copies = 0;
        g_wire.faults += 1;
    } else if (fault(g_settings.repeat_one_in)) {
        SIM_TELL("  wire: repeats the frame");
        copies = 2;
        g_wire.faults += 1;
    }
    if (fault(g_settings.damage_one_in)) {
        SIM_TELL("  wire: damages the frame");
        damage(frame);
        g_wire.faults += 1;
    }
    for (; copies > 0; copies--) {
        at(now() + delay(), [frame, arrive] { arrive(frame); });
    }
}

// Something that no request of ours has asked for.
void send_foreign_frame(int index, const Frame &like) {
    Frame frame = like;
    switch (g_choices.pick(4)) {
    case 0:
        break; // our own request, looped back
    case 1:
        frame.resize(14 + g_choices.pick(60));
        break;
    case 2:
        frame.assign(60, 0x44);
        break;
    default:
        frame.clear();
        break;
    }
    g_wire.faults += 1;
    at(now() + delay(), [index, frame] { deliver(index, frame); });
}

int send_errno() {
    static const int kErrors[] = {ENOBUFS, EAGAIN, ENETDOWN, EINTR};
    return kErrors[g_choices.pick(std::size(kErrors))];
}

} // namespace

void reset_link() {
    g_next_number = 11;
    for (Interface &interface : g_interfaces) {
        interface = {.number = g_next_number++, .is_up = true};
    }
    g_descriptors.clear();
    g_wire = {};
}

void set_interface_up(int index, bool is_up) {
    g_interfaces[index].is_up = is_up;
    g_wire.faults += 1;
    SIM_TELL("interface %d is %s", index, is_up ? "up" : "down");
    if (!is_up) {
        for_each_socket(g_interfaces[index].number, [](Socket &socket) {
            socket.error = ENETDOWN;
            wake(&socket);
        });
    }
}

void remove_interface(int index) {
    set_interface_up(index, false);
    for_each_socket(g_interfaces[index].number,
                    [&](Socket &socket) { socket.receives = socket.bound_to == kAnyInterface; });
    g_interfaces[index].number = 0;
}

void add_interface(int index) {
    g_interfaces[index] = {.number = g_next_number++, .is_up = true};
}

void send_to_board(int index, Frame frame) {
    carry(std::move(frame), [index](const Frame &arrived) { deliver(index, arrived); });
}

int open_foreign_descriptor() {
    Descriptor foreign;
    foreign.is_foreign = true;
    return open_descriptor(foreign);
}

int open_other_descriptor(const char *what) {
    Descriptor other;
    other.what = what;
    return open_descriptor(other);
}

void must_have_closed_all() {
    for (size_t fd = 0; fd < g_descriptors.size(); fd++) {
        const Descriptor &d = g_descriptors[fd];
        if (d.is_open && !d.is_foreign) {
            fail("descriptor %d is still open (%s)", static_cast<int>(fd), d.what);
        }
    }
}

} // namespace sim

using namespace sim;

extern "C" {

// NOLINTBEGIN: the linker's names
int __wrap_socket(int, int, int) {
    point("socket");
    if (fault(g_settings.open_fails_one_in)) {
        errno = EMFILE;
        SIM_TELL("socket fails: EMFILE");
        return -1;
    }
    Descriptor opened;
    opened.what = "a socket";
    opened.socket = std::make_shared<Socket>();
    const int fd = open_descriptor(std::move(opened));
    SIM_TELL("socket: %d", fd);
    return fd;
}

int __wrap_ioctl(int fd, unsigned long what, ...) {
    va_list arguments;
    va_start(arguments, what);
    auto *request = va_arg(arguments, ifreq *);
    va_end(arguments);
    point("ioctl");
    if (socket_at(fd, "ioctl") == nullptr) {
        return -1;
    }
    const int index = index_of_name(request->ifr_name);
    if (index < 0 || fault(g_settings.open_fails_one_in)) {
        errno = ENODEV;
        SIM_TELL("ioctl fails: ENODEV");
        return -1;
    }
    if (what == SIOCGIFFLAGS) {
        request->ifr_flags = IFF_UP;
    } else if (what == SIOCGIFINDEX) {
        request->ifr_ifindex = g_interfaces[index].number;
    }
    return 0;
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t) {
    point("bind");
    const std::shared_ptr<Socket> socket = socket_at(fd, "bind");
    if (socket == nullptr) {
        return -1;
    }
    const auto *to = reinterpret_cast<const sockaddr_ll *>(address);
    if (index_of_number(to->sll_ifindex) < 0 || fault(g_settings.open_fails_one_in)) {
        errno = ENODEV;
        SIM_TELL("bind fails: ENODEV");
        return -1;
    }
    socket->bound_to = to->sll_ifindex;
    socket->frames.clear();
    return 0;
}

int __wrap_setsockopt(int fd, int, int, const void *, socklen_t) {
    point("setsockopt");
    return socket_at(fd, "setsockopt") == nullptr ? -1 : 0;
}

int __wrap_close(int fd) {
    cancellation_point();
    point("close");
    Descriptor *found = descriptor(fd);
    if (found == nullptr) {
        fail("close: descriptor %d is not open", fd);
    }
    if (found->is_foreign) {
        fail("close: descriptor %d belongs to somebody else", fd);
    }
    *found = {}; // who receives from it goes on waiting, as in the kernel
    SIM_TELL("closes %d", fd);
    return 0;
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t size, int, const sockaddr *address,
                      socklen_t address_size) {
    cancellation_point();
    must_be_usable(bytes, size, "sendto");
    point("sendto");
    if (socket_at(fd, "sendto") == nullptr) {
        return -1;
    }
    kernel_reads(address, address_size, __builtin_return_address(0));
    kernel_reads(bytes, size, __builtin_return_address(0));
    const auto *to = reinterpret_cast<const sockaddr_ll *>(address);
    const int index = index_of_number(to->sll_ifindex);
    int error = fault(g_settings.send_fails_one_in) ? send_errno() : 0;
    if (index < 0) {
        error = ENXIO;
    } else if (!g_interfaces[index].is_up) {
        error = ENETDOWN;
    }
    if (error != 0) {
        g_wire.faults += 1;
        SIM_TELL("sendto fails: %s", strerrorname_np(error));
        errno = error;
        return -1;
    }
    const auto *begin = static_cast<const uint8_t *>(bytes);
    Frame frame(begin, begin + size);
    g_wire.requests += 1;
    SIM_TELL("sends %zu bytes on interface %d", size, index);
    note_transmission(index, frame);
    if (fault(g_settings.foreign_one_in)) {
        send_foreign_frame(index, frame);
    }
    carry(std::move(frame), [index](const Frame &arrived) {
        if (g_interfaces[index].number != 0 && g_interfaces[index].is_up) {
            card_receives(index, arrived);
        }
    });
    point("the return of sendto");
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_recvfrom(int fd, void *to, size_t size, int, sockaddr *, socklen_t *) {
    cancellation_point();
    must_be_usable(to, size, "recvfrom");
    point("recvfrom");
    const std::shared_ptr<Socket> socket = socket_at(fd, "recvfrom");
    if (socket == nullptr) {
        return -1;
    }
    if (fault(g_settings.receive_fails_one_in)) {
        static const int kErrors[] = {ENETDOWN, EINTR, EAGAIN, ENOBUFS};
        errno = kErrors[g_choices.pick(std::size(kErrors))];
        SIM_TELL("recvfrom fails: %s", strerrorname_np(errno));
        return -1;
    }
    while (socket->frames.empty() && socket->error == 0) {
        if (wait("recvfrom", socket.get(), kNever, false, true) == Woken::kCancelled) {
            cancellation_point();
        }
    }
    if (socket->error != 0) {
        errno = std::exchange(socket->error, 0);
        SIM_TELL("recvfrom fails: %s", strerrorname_np(errno));
        return -1;
    }
    must_be_usable(to, size, "recvfrom");
    kernel_writes(to, std::min(size, socket->frames.front().size()), __builtin_return_address(0));
    if (socket->frames.empty()) { // another receiver was faster
        errno = EINTR;
        return -1;
    }
    const Frame frame = std::move(socket->frames.front());
    socket->frames.pop_front();
    const size_t taken = std::min(size, frame.size());
    {
        const OutsideProduct outside;
        std::copy_n(frame.data(), taken, static_cast<uint8_t *>(to));
    }
    SIM_TELL("receives %zu bytes", taken);
    cancellation_point();
    if (index_of_number(socket->bound_to) >= 0 && taken == frame.size()) {
        note_taken(index_of_number(socket->bound_to), frame);
    }
    return static_cast<ssize_t>(taken);
}
// NOLINTEND
}
