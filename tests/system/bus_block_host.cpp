// bus_block_host - a host process that moves blocks to and from the card behind eth0.
//
//   bus_block_host STEP...
//
//   write ADDR FILE         write the file's bytes to a bus address (hexadecimal)
//   read ADDR LENGTH FILE   read so many bytes (decimal) into a file
//   link INDEX              go on over another link
//   timeout MS              let each receive end after this time
//   tick                    start the library's 30 ms tick
//   hold                    take the bus, and give it back only by ending
//   give                    give the bus back
//   pause                   wait for SIGUSR1
//   close                   remove the semaphore
//
// Says "open" when the interfaces are open, the step's words before and "done" after each step.
// Ends with 0, with 1 at the first step that failed, with 2 for a wrong command line or outside the
// test bed, where it sends nothing.
#include "eth_raw/bus_block.h"
#include "log/log.h"
#include "timer/timer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <net/if.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Words = std::span<const std::string>;

constexpr char kMarker[] = "ruktestbed"; // stands only in the test bed's namespace
constexpr int kWrongUse = 2;
constexpr int kReceiveRoom = 128 * 1024;
constexpr long kMicrosecondsPerMillisecond = 1000;
constexpr long kMillisecondsPerSecond = 1000;

int write_file(EthRawTrans &xfer, Words words) {
    std::ifstream file(words[1], std::ios::binary);
    Bytes data(std::filesystem::file_size(words[1]));
    file.read(reinterpret_cast<char *>(data.data()), static_cast<std::streamsize>(data.size()));
    if (!file.good()) {
        return -1;
    }
    return Write_FPGA_Bus_Block(&xfer, static_cast<uint32_t>(std::stoul(words[0], nullptr, 16)),
                                static_cast<uint32_t>(data.size()), data.data());
}

int read_file(EthRawTrans &xfer, Words words) {
    Bytes data(std::stoul(words[1]));
    const int result =
        Read_FPGA_Bus_Block(&xfer, static_cast<uint32_t>(std::stoul(words[0], nullptr, 16)),
                            static_cast<uint32_t>(data.size()), data.data());
    std::ofstream file(words[2], std::ios::binary);
    file.write(reinterpret_cast<const char *>(data.data()),
               static_cast<std::streamsize>(data.size()));
    return file.good() ? result : -1;
}

// What other traffic leaves in the socket counts as frames of the next read: keep it short.
bool keep_short(const EthRawTrans &xfer) {
    return setsockopt(xfer.sock_fd, SOL_SOCKET, SO_RCVBUF, &kReceiveRoom, sizeof kReceiveRoom) == 0;
}

int go_to_link(EthRawTrans &xfer, Words words) {
    EthRawTrans handles[MAX_ETH] = {};
    const auto index = static_cast<size_t>(std::stoul(words[0]));
    if (index >= MAX_ETH || eth_raw_tranfser_set(g_eth_init, handles, MAX_ETH) != 0 ||
        !keep_short(handles[index])) {
        return -1;
    }
    xfer = handles[index];
    return 0;
}

int set_timeout(EthRawTrans &xfer, Words words) {
    const long ms = std::stol(words[0]);
    timeval limit{};
    limit.tv_sec = ms / kMillisecondsPerSecond;
    limit.tv_usec = ms % kMillisecondsPerSecond * kMicrosecondsPerMillisecond;
    return setsockopt(xfer.sock_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

int wait_for_signal() {
    sigset_t set{};
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGUSR1);
    int signo = 0;
    return sigwait(&set, &signo);
}

struct Step {
    size_t words;
    std::function<int(EthRawTrans &, Words)> run;
};

const std::map<std::string, Step> &steps() {
    static const auto *all = new std::map<std::string, Step>{
        {"write", {2, write_file}},
        {"read", {3, read_file}},
        {"link", {1, go_to_link}},
        {"timeout", {1, set_timeout}},
        {"tick", {0, [](auto &, Words) { return initTimer(); }}},
        {"hold", {0, [](auto &, Words) { return semaphore_p(); }}},
        {"give", {0, [](auto &, Words) { return semaphore_v(); }}},
        {"pause", {0, [](auto &, Words) { return wait_for_signal(); }}},
        {"close", {0, [](auto &, Words) { return Close_Eth_Raw(); }}},
    };
    return *all;
}

void say(const std::string &text) {
    (void)puts(text.c_str());
    (void)fflush(stdout);
}

int run_steps(EthRawTrans &xfer, Words words) {
    while (!words.empty()) {
        const auto found = steps().find(words[0]);
        if (found == steps().end() || words.size() <= found->second.words) {
            (void)fprintf(stderr, "bus_block_host: run '%s': no such step\n", words[0].c_str());
            return kWrongUse;
        }
        say(words[0]);
        if (found->second.run(xfer, words.subspan(1, found->second.words)) != 0) {
            say("failed");
            return EXIT_FAILURE;
        }
        say("done");
        words = words.subspan(1 + found->second.words);
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
    if (if_nametoindex(kMarker) == 0) {
        (void)fprintf(stderr, "bus_block_host: start with scripts/testbed, nothing is sent\n");
        return kWrongUse;
    }
    sigset_t set{};
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGUSR1);
    (void)sigprocmask(SIG_BLOCK, &set, nullptr); // kept for the pauses, whenever it comes
    log_debug = 1;
    EthRawTrans handles[MAX_ETH] = {};
    if (Open_Eth_Raw(handles, MAX_ETH) != 0 || !keep_short(handles[0])) {
        return EXIT_FAILURE;
    }
    say("open");
    const std::vector<std::string> words(argv + 1, argv + argc);
    return run_steps(handles[0], words);
}
