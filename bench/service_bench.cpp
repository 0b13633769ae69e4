// What the request service adds to a register read: asked by a process that keeps running, and by
// ruk-ipc, which starts anew for each.
//
//   service_bench RUK_IPC   eth0: ruk-card; rukd serves it, in the same APIPC_DIR
#include "ap_msg/message_layout.h"
#include "board/board.h"
#include "clients.h"
#include "die.h"
#include "packet_socket.h"
#include "process_time.h"
#include "requests.h"
#include "run_apart.h"
#include "statistics.h"

#include <string>

namespace {

constexpr int kClientCpu = 1; // as in the other benchmarks
constexpr int kCardLink = 0;
constexpr int kRounds = 25;
constexpr int kReadsPerTurn = 300;
constexpr int kProcessesPerTurn = 12;
constexpr double kUsPerMs = 1000;
constexpr const RoundTrip &kRead = kRoundTrips[0];

constexpr int kOwnAddress = 0xA8500; // module 0x85, which nobody else is, of the card in slot 0

uint8_t g_code;    // of the last reply
uint32_t g_result; // its result

int take_reply(int /*a*/, int /*b*/, void *msg, int length) {
    const auto *bytes = static_cast<const uint8_t *>(msg);
    if (length != static_cast<int>(message::kHeaderSize + kRead.len)) {
        die_of("service: a reply of another length");
    }
    g_code = static_cast<uint8_t>(load_le(bytes, message::kCode));
    g_result = load_le(bytes, message::kResult);
    return 0;
}

std::vector<uint8_t> read_request() {
    std::vector<uint8_t> request(message::kHeaderSize);
    store_le(request.data(), message::kAptid, kOwnAddress);
    store_le(request.data(), message::kClass, message::kServiceClass);
    store_le(request.data(), message::kCode, message::kCodeRead);
    store_le(request.data(), message::kSlot, kSlot);
    store_le(request.data(), message::kModel, kModel);
    store_le(request.data(), message::kAddr, kAddress);
    store_le(request.data(), message::kLen, kRead.len);
    return request;
}

double time_exchange(std::vector<uint8_t> &request) {
    const double start = now_us();
    g_result = 1;
    if (apipc_send(static_cast<int>(message::kOwnModule), request.data(),
                   static_cast<unsigned>(request.size())) != 0 ||
        apipc_loop_wait(0, take_reply) != 0) {
        die("service: exchange messages");
    }
    const double taken = now_us() - start;
    if (g_code != message::kCodeRead || g_result != 0) {
        die_of("service: a read failed");
    }
    return taken;
}

std::vector<double> exchanges(int cpu) {
    pin_to(cpu);
    if (apipc_init(kOwnAddress, 0) != 0) {
        die("service: register with the message library");
    }
    std::vector<uint8_t> request = read_request();
    std::vector<double> times;
    for (int i = -kReadsPerTurn / 10; i < kReadsPerTurn; i++) { // the first tenth warms up
        const double taken = time_exchange(request);
        if (i >= 0) {
            times.push_back(taken);
        }
    }
    return {median(times)};
}

double process_us(const std::vector<std::string> &words, int cpu, const std::string &wanted) {
    std::vector<double> times;
    for (int i = 0; i < kProcessesPerTurn; i++) {
        times.push_back(time_process(words, cpu, wanted) * kUsPerMs);
    }
    return median(times);
}

void print_row(const char *what, const std::vector<double> &times,
               const std::vector<double> &reads) {
    std::vector<double> above;
    for (size_t i = 0; i < times.size(); i++) {
        above.push_back(times[i] - reads[i]);
    }
    printf("%-22s %8.1f %8.1f  (%.1f - %.1f)\n", what, median(times), median(above),
           quantile(above, 0.25), quantile(above, 0.75));
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        die_of("usage: service_bench RUK_IPC");
    }
    require_testbed("ruktestbed");
    const int cpu = sysconf(_SC_NPROCESSORS_ONLN) > kClientCpu ? kClientCpu : 0;
    const std::vector<std::string> ruk_ipc = {argv[1], "--slot", "3",    "--model",
                                              "1",     "read",   "1000", "4"};
    std::vector<double> reads;
    std::vector<double> messages;
    std::vector<double> processes;
    std::vector<double> nothing;
    for (int round = 0; round < kRounds; round++) {
        reads.push_back(
            run_apart([&] { return product_round_trips(kCardLink, cpu, kReadsPerTurn); })[0]);
        messages.push_back(run_apart([&] { return exchanges(cpu); })[0]);
        processes.push_back(process_us(ruk_ipc, cpu, "00001000: "));
        nothing.push_back(process_us({argv[1], "--version"}, cpu, "ruk-ipc"));
    }
    printf("\none read of 4 bytes through the request service, us\n"
           "                           time    above the read itself (quartiles)\n");
    printf("%-22s %8.1f\n", "the read itself", median(reads));
    print_row("by message", messages, reads);
    print_row("ruk-ipc read", processes, reads);
    print_row("ruk-ipc --version", nothing, reads);
    return 0;
}
