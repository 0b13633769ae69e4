// How fast a 1920 x 1080 picture goes out, beside a loop that sends the same frames, packed
// beforehand, through the same socket.
#include "ap_msg/ap_msg.h"
#include "die.h"
#include "eth_raw/eth_raw.h"
#include "main/main.h"
#include "mem/mem.h"
#include "packet_socket.h"
#include "raw_msg/raw_msg.h"
#include "statistics.h"
#include "timer/timer.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
using Frame = std::vector<uint8_t>;

constexpr uint32_t kHor = 1920;
constexpr uint32_t kVer = 1080;
constexpr int kTurns = 15;
constexpr uint32_t kFrameData = 1400;
constexpr int kPortInterface = 0; // where "writepic" goes in this benchmark
constexpr int kDdr2Interface = 2; // where DDR2Write reaches FPGA 0
constexpr double kBytesPerMegabyte = 1e6;

void add_frame(std::vector<Frame> &frames, uint32_t addr, const uint8_t *data, uint32_t len) {
    uint8_t *const payload = RawMsgBuffGet(len);
    if (payload == nullptr) {
        die_of("no frame buffer");
    }
    memcpy(payload, data, len);
    uint8_t *frame = payload;
    const uint32_t size = RawMsgHeaderPack(0, 0, 1, addr, 0, &frame, static_cast<uint16_t>(len));
    frames.emplace_back(frame, frame + size);
    RawMsgBuffFree(payload);
}

// What "writepic" sends between its control records.
std::vector<Frame> port_frames() {
    const Frame pixels(kHor * kVer * 3, 0x5A);
    std::vector<Frame> frames;
    for (uint32_t at = 0; at < pixels.size(); at += kFrameData) {
        const auto left = static_cast<uint32_t>(pixels.size() - at);
        add_frame(frames, 0x40000, pixels.data() + at, std::min(kFrameData, left));
    }
    return frames;
}

// What LoadPicture sends: chunks of 15360 bytes, a record of 7 behind each.
std::vector<Frame> ddr2_frames() {
    constexpr uint32_t kChunk = 15360;
    const Frame chunk(kChunk, 0x5A);
    const Frame record(7, 1);
    std::vector<Frame> frames;
    for (uint32_t sent = 0; sent < kHor * kVer * 4; sent += kChunk) {
        for (uint32_t at = 0; at < kChunk; at += kFrameData) {
            add_frame(frames, 0xB0000 + at, chunk.data() + at, std::min(kFrameData, kChunk - at));
        }
        add_frame(frames, 0xA0001, record.data(), 7);
    }
    return frames;
}

void send_bare(int index, const std::vector<Frame> &frames) {
    const eth_init &link = g_eth_init[index];
    for (const Frame &frame : frames) {
        if (sendto(link.sock_fd, frame.data(), frame.size(), 0,
                   reinterpret_cast<const sockaddr *>(&link.addr), sizeof link.addr) < 0) {
            die("send a frame");
        }
    }
}

double seconds(const std::function<void()> &action) {
    const auto start = Clock::now();
    action();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void compare(const char *what, double bytes, const std::function<void()> &product,
             const std::function<void()> &bare) {
    std::vector<double> product_times;
    std::vector<double> bare_times;
    for (int i = 0; i < kTurns; i++) {
        bare_times.push_back(seconds(bare));
        product_times.push_back(seconds(product));
    }
    const std::vector<double> ratio = ratios(product_times, bare_times);
    printf("%-12s %8.0f %8.0f  %5.2f  (%.2f - %.2f)\n", what,
           bytes / median(bare_times) / kBytesPerMegabyte,
           bytes / median(product_times) / kBytesPerMegabyte, median(ratio), quantile(ratio, 0.25),
           quantile(ratio, 0.75));
}

std::string picture_file() {
    std::string name = "/var/log/bench.bmp"; // in the test bed's own memory
    FILE *file = fopen(name.c_str(), "w");
    uint8_t header[54] = {'B', 'M'};
    header[10] = sizeof header;
    const Frame pixels(kHor * kVer * 3, 0x5A);
    if (file == nullptr || fwrite(header, sizeof header, 1, file) != 1 ||
        fwrite(pixels.data(), pixels.size(), 1, file) != 1 || fclose(file) != 0) {
        die("write the picture");
    }
    return name;
}

void open_links() {
    pthread_t receiver{};
    pthread_t checker{};
    queue_init();
    (void)mem_init();
    (void)sem_init(&sem_test, 0, 0);
    if (initTimer() != 0) {
        die("start the timer");
    }
    (void)RawMsgModuleInit(kPortInterface, &receiver, &checker);
    (void)RawSockMsgInit(kDdr2Interface);
    if (receiver == pthread_t{} || g_eth_init[kDdr2Interface].flag == 0) {
        die("open the links");
    }
}

} // namespace

int main() {
    require_testbed("ruktestbed");
    open_links();
    const std::string name = picture_file();
    const std::vector<Frame> port = port_frames();
    const std::vector<Frame> ddr2 = ddr2_frames();
    printf("\na 1920 x 1080 picture from its file, MB/s of payload (ratio of times)\n"
           "                 bare  product  ratio  (quartiles)\n");
    compare(
        "writepic", kHor * kVer * 3.0,
        [&] {
            if (write_file_handle_test(kPortInterface, 0, 0, 0, kHor, kVer, name.c_str()) != 0) {
                die_of("writepic failed");
            }
        },
        [&] { send_bare(kPortInterface, port); });
    compare(
        "LoadPicture", kHor * kVer * 4.0,
        [&] {
            if (LoadPicture(0, kHor, kVer, name.c_str(), "-e", "-0B") != 0) {
                die_of("LoadPicture failed");
            }
        },
        [&] { send_bare(kDdr2Interface, ddr2); });
    return 0;
}
