// The product against bare sockets, on the same wire, to the same cards.
//
//   link_bench RUK           eth0: ruk-card, eth1: reflector, eth2: nobody listens
//   link_bench --read-once   one read through a bare socket on eth0
//
// scripts/bench starts it with everything in place. What is compared runs in turns, a few
// hundredths of a second each, so that a busy machine slows both; ratios are taken turn by turn.
#include "clients.h"
#include "die.h"
#include "packet_socket.h"
#include "process_time.h"
#include "requests.h"
#include "run_apart.h"
#include "statistics.h"

#include <fstream>
#include <string>
#include <sys/utsname.h>
#include <unistd.h>

namespace {

constexpr int kClientCpu = 1; // where the product moves its sender for interface 0
constexpr int kCardLink = 0;
constexpr int kReflectorLink = 1;
constexpr int kDeadEnd = 2;

constexpr int kRounds = 25;
constexpr int kRequestsPerTurn = 300;
constexpr uint32_t kTransfer = 1 << 20;
constexpr int kTransfersPerTurn = 8;
constexpr int kProcessRounds = 25;
constexpr double kStartPauseMs = 100; // a fixed part of the tool's start

using Series = std::vector<double>;  // one figure per round
using Columns = std::vector<Series>; // one series per kind of round trip

std::string processor_name() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("model name") || line.starts_with("Model")) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown processor";
}

void print_machine(int client_cpu) {
    utsname system{};
    (void)uname(&system);
    printf("machine: %s, %ld processors, %s %s %s\n", processor_name().c_str(),
           sysconf(_SC_NPROCESSORS_ONLN), system.sysname, system.release, system.machine);
    printf("clients on processor %d, card and reflector on processor 0; veth cables\n", client_cpu);
}

void print_ratio(const Series &over, const Series &under) {
    const Series all = ratios(over, under);
    printf("  %5.2f  (%4.2f - %4.2f)\n", median(all), quantile(all, 0.25), quantile(all, 0.75));
}

void append(Columns &columns, const std::vector<double> &row) {
    if (row.size() != columns.size()) {
        die_of("a turn did not bring all its figures");
    }
    for (size_t i = 0; i < row.size(); i++) {
        columns[i].push_back(row[i]);
    }
}

struct Peer {
    const char *name;
    int index;
    Columns bare = Columns(kRoundTrips.size());
    Columns product = Columns(kRoundTrips.size());
};

void measure_round_trips(Peer &peer, int cpu) {
    append(peer.bare,
           run_apart([&] { return bare_round_trips(peer.index, cpu, kRequestsPerTurn); }));
    append(peer.product,
           run_apart([&] { return product_round_trips(peer.index, cpu, kRequestsPerTurn); }));
}

void print_round_trips(const Peer &peer) {
    for (size_t i = 0; i < kRoundTrips.size(); i++) {
        printf("%-12s %-10s %8.1f %8.1f", kRoundTrips[i].name, peer.name, median(peer.bare[i]),
               median(peer.product[i]));
        print_ratio(peer.product[i], peer.bare[i]);
    }
}

void print_card(const Peer &card, const Peer &reflector) {
    printf("\nruk-card against the reflector, bare client, us\n");
    printf("%-12s %10s %8s %8s  ratio  (quartiles)\n", "", "", "reflect.", "card");
    for (size_t i = 0; i < kRoundTrips.size(); i++) {
        printf("%-12s %10s %8.1f %8.1f", kRoundTrips[i].name, "", median(reflector.bare[i]),
               median(card.bare[i]));
        print_ratio(card.bare[i], reflector.bare[i]);
    }
}

void bench_round_trips(int cpu) {
    Peer card{.name = "ruk-card", .index = kCardLink};
    Peer reflector{.name = "reflector", .index = kReflectorLink};
    for (int round = 0; round < kRounds; round++) {
        measure_round_trips(card, cpu);
        measure_round_trips(reflector, cpu);
    }
    printf("\nround trip of a waiting request, us\n");
    printf("%-12s %-10s %8s %8s  ratio  (quartiles)\n", "", "peer", "bare", "product");
    print_round_trips(card);
    print_round_trips(reflector);
    print_card(card, reflector);
}

Series megabytes_per_second(const Series &times) {
    Series rates;
    for (const double us : times) {
        rates.push_back(kTransfer / us); // bytes per us are megabytes per s
    }
    return rates;
}

void bench_writes(int cpu) {
    Columns bare(1);
    Columns product(1);
    for (int round = 0; round < kRounds; round++) {
        append(bare,
               run_apart([&] { return bare_writes(kDeadEnd, cpu, kTransfer, kTransfersPerTurn); }));
        append(product, run_apart([&] {
                   return product_writes(kDeadEnd, cpu, kTransfer, kTransfersPerTurn);
               }));
    }
    printf("\nplain writes in frames of 1400 bytes, nobody listens, MB/s (ratio of times)\n");
    printf("%-12s %-10s %8s %8s  ratio  (quartiles)\n", "", "", "bare", "product");
    printf("%-12s %-10s %8.0f %8.0f", "1 MiB", "", median(megabytes_per_second(bare[0])),
           median(megabytes_per_second(product[0])));
    print_ratio(product[0], bare[0]);
}

void bench_processes(const char *ruk, const char *self, int cpu) {
    Series bare;
    Series product;
    Series shells;
    const std::string setting = "sysctl -w net.core.wmem_max=3492800; true";
    for (int round = 0; round < kProcessRounds; round++) {
        bare.push_back(time_process({self, "--read-once"}, cpu, ""));
        product.push_back(
            time_process({ruk, "0", "readw", "1", "3", "1000", "4"}, cpu, "00001000: ") -
            kStartPauseMs);
        shells.push_back(2 * time_process({"/bin/sh", "-c", setting}, cpu, ""));
    }
    printf("\nwhole process, one waiting read of 4 bytes, ms; product without its %.0f ms pause\n",
           kStartPauseMs);
    printf("%-12s %-10s %8s %8s  ratio  (quartiles)\n", "", "", "bare", "product");
    printf("%-12s %-10s %8.2f %8.2f", "ruk readw", "ruk-card", median(bare), median(product));
    print_ratio(product, bare);
    printf("two sysctl shells, which the tool starts, take %.2f ms of it\n", median(shells));
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        die_of("usage: link_bench RUK | --read-once");
    }
    require_testbed("ruktestbed");
    if (std::string(argv[1]) == "--read-once") {
        bare_read_once(kCardLink);
        return 0;
    }
    const int cpu = sysconf(_SC_NPROCESSORS_ONLN) > kClientCpu ? kClientCpu : 0;
    print_machine(cpu);
    bench_round_trips(cpu);
    bench_writes(cpu);
    bench_processes(argv[1], "/proc/self/exe", cpu);
    return 0;
}
