// link_state.cpp - the table of link records, and what a record cannot tell about its link.
#include "eth_raw/eth_raw.h"

#include "base/locks.h"
#include "base/relaxed.h"
#include "eth_raw/link_state.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <unistd.h>

constexpr eth_init kUnopened{.index = 0,
                             .name = {},
                             .flag = 0,
                             .sock_fd = 0,
                             .addr = {},
                             .send_lock = PTHREAD_MUTEX_INITIALIZER};

char g_netdev_name[MAX_ETH][20] = {"eth0", "eth1", "eth2"};
eth_init g_eth_init[MAX_ETH] = {kUnopened, kUnopened, kUnopened};

namespace {

// A record stays filled for the life of the process: it does not tell that its link came up only
// halfway, nor that it was closed and that its descriptor may be somebody else's by now.
enum class Barred : uint8_t {
    kNothing,
    kSending,
    kEverything,
};
std::atomic<Barred> g_barred[MAX_ETH]; // written under the record's send lock

// Another thread of the parent may have been sending; the child has no such thread.
[[maybe_unused]] const bool g_renews_locks = renew_in_child([] {
    for (eth_init &record : g_eth_init) {
        record.send_lock = PTHREAD_MUTEX_INITIALIZER;
    }
});

// False for a record whose socket was never opened: its descriptor 0 is somebody else's.
bool has_socket(eth_init &record) {
    return load_relaxed(record.flag) == 1 || load_relaxed(record.sock_fd) > 0;
}

void fill(eth_init &record, uint32_t index, int sock_fd, const sockaddr_ll &address) {
    memcpy(record.name, g_netdev_name[index], strnlen(g_netdev_name[index], sizeof record.name));
    record.index = index;
    record.addr = address;
    store_relaxed(record.sock_fd, sock_fd);
    store_relaxed(record.flag, 1);
}

} // namespace

eth_init *link_record(int index) {
    return index >= 0 && index < MAX_ETH ? &g_eth_init[index] : nullptr;
}

// A record of the caller's own has no lock and no senders.
void link_fill(eth_init &record, uint32_t index, int sock_fd, const sockaddr_ll &address,
               bool is_bound) {
    if (&record != &g_eth_init[index]) {
        fill(record, index, sock_fd, address);
        return;
    }
    const MutexGuard guard(record.send_lock);
    fill(record, index, sock_fd, address);
    g_barred[index] = is_bound ? Barred::kNothing : Barred::kSending;
}

void link_bar_sending(int index) {
    const MutexGuard guard(g_eth_init[index].send_lock);
    g_barred[index] = std::max(g_barred[index].load(), Barred::kSending);
}

// Under the lock, for a descriptor must not be closed, and given to somebody else, in the middle of
// a transmission.
void link_close(int index) {
    eth_init &record = g_eth_init[index];
    const CancelOff whole_close;
    const MutexGuard guard(record.send_lock);
    if (has_socket(record) && g_barred[index] != Barred::kEverything) {
        g_barred[index] = Barred::kEverything;
        (void)close(record.sock_fd);
    }
}

bool link_is_up(int index) {
    return has_socket(g_eth_init[index]) && g_barred[index] == Barred::kNothing;
}

int link_receiving_socket(int index) {
    eth_init *record = link_record(index);
    if (record == nullptr || g_barred[index] == Barred::kEverything || !has_socket(*record)) {
        return -1;
    }
    return load_relaxed(record->sock_fd);
}
