#include "clients.h"

#include "die.h"
#include "eth_raw/eth_raw.h"
#include "eth_raw/frame_layout.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/raw_msg.h"
#include "requests.h"
#include "run_apart.h"
#include "statistics.h"
#include "timer/sleep.h"
#include "timer/timer.h"

namespace {

using namespace std::chrono_literals;

constexpr int32_t kWaitTicks = 6;      // as the tool's commands wait
constexpr auto kThreadStart = 30000us; // until both threads of the link are running

// As the tool starts, without its shell commands.
void start_link(int index, int cpu) {
    pin_to(cpu); // the threads inherit it
    queue_init();
    (void)mem_init();
    if (initTimer() != 0) {
        die("product: start the timer");
    }
    (void)sem_init(&sem_test, 0, 0);
    pthread_t receive_thread{};
    pthread_t check_thread{};
    (void)RawMsgModuleInit(index, &receive_thread, &check_thread);
    if (g_eth_init[index].flag != 1 || receive_thread == pthread_t{}) {
        die_of("product: the link is not up; it needs root and real-time rights");
    }
    sleep_full(kThreadStart);
    pin_to(cpu); // the threads have moved this one to where the product wants it
}

void do_round_trip(int index, const RoundTrip &what, uint8_t *data) {
    int result = 0;
    uint32_t received = what.len;
    uint8_t ack = 0;
    if (what.code == RAW_MSG_CODE_READ) {
        result = RawSockSendMsgWithReadWait(index, kModel, kSlot, kAddress, what.code, what.len,
                                            data, &received, kWaitTicks);
    } else {
        result = RawSockSendMsgWithAckWait(index, kModel, kSlot, kAddress, what.code, data,
                                           what.len, &ack, kWaitTicks);
    }
    if (result != 0 || received != what.len || ack != 0) {
        die_of("product: a request failed");
    }
    (void)sem_trywait(&sem_test); // as the tool does; the operation has posted
}

double time_round_trips(int index, const RoundTrip &what, int count) {
    std::vector<uint8_t> data(kMaxPayload, kData);
    std::vector<double> times;
    times.reserve(static_cast<size_t>(count));
    for (int i = -count / 10; i < count; i++) { // the first tenth warms up
        const double start = now_us();
        do_round_trip(index, what, data.data());
        const double taken = now_us() - start;
        if (i >= 0) {
            times.push_back(taken);
        }
    }
    return median(times);
}

} // namespace

std::vector<double> product_round_trips(int index, int cpu, int count) {
    start_link(index, cpu);
    std::vector<double> medians;
    medians.reserve(kRoundTrips.size());
    for (const RoundTrip &what : kRoundTrips) {
        medians.push_back(time_round_trips(index, what, count));
    }
    return medians;
}

std::vector<double> product_writes(int index, int cpu, uint32_t bytes, int count) {
    start_link(index, cpu);
    const std::vector<uint8_t> data(bytes, kData);
    std::vector<double> times;
    times.reserve(static_cast<size_t>(count));
    for (int i = -1; i < count; i++) {
        const double start = now_us();
        const int result =
            RawSockSendMsg(index, kModel, kSlot, kAddress, kWriteCode, data.data(), bytes);
        const double taken = now_us() - start;
        if (result != 0) {
            die_of("product: a write failed");
        }
        if (i >= 0) {
            times.push_back(taken);
        }
    }
    return {median(times)};
}
