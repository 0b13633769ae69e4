#include "tests/system/storm/host.h"

#include "tests/system/bed/all_processors.h"
#include "tests/system/bed/bed.h"

#include "eth_raw/eth_raw.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "queue/queue.h"
#include "raw_msg/raw_msg.h"
#include "timer/timer.h"

#include <netpacket/packet.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace bed {

namespace {

// As PACKET_STATISTICS gives it; the kernel's own header does not go with the C library's.
struct PacketStatistics {
    unsigned packets = 0;
    unsigned drops = 0;
};

void end_thread(pthread_t thread) {
    (void)pthread_cancel(thread);
    (void)pthread_join(thread, nullptr);
}

} // namespace

Host::Host() {
    queue_init();
    (void)mem_init();
    (void)sem_init(&sem_test, 0, 0);
    if (initTimer() != 0) {
        throw std::runtime_error("initTimer");
    }
    (void)RawMsgModuleInit(0, &receive_, &check_);
    if (receive_ == pthread_t{} || check_ == pthread_t{}) {
        throw std::runtime_error("the link did not come up");
    }
    std::this_thread::sleep_for(100ms);
    use_all_processors();
}

Host::~Host() {
    end_thread(receive_);
    end_thread(check_);
    (void)RawMsgModuleUnInit(0);
    (void)mem_uinit();
}

unsigned Host::kernel_drops() const {
    PacketStatistics stats;
    socklen_t size = sizeof stats;
    if (getsockopt(g_eth_init[0].sock_fd, SOL_PACKET, PACKET_STATISTICS, &stats, &size) != 0) {
        throw std::runtime_error("PACKET_STATISTICS");
    }
    return stats.drops;
}

int posts() {
    int value = 0;
    (void)sem_getvalue(&sem_test, &value);
    return value;
}

int64_t settled_handed_out(int64_t expected) {
    for (int i = 0; i < 5000 && mem_handed_out() != expected; i++) {
        std::this_thread::sleep_for(1ms);
    }
    return mem_handed_out();
}

} // namespace bed
