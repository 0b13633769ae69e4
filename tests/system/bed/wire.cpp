// Frames on the virtual cable: built, captured and sent without the product's code.
#include "tests/system/bed/bed.h"
#include "tests/system/bed/journal.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <net/ethernet.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sched.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace bed {

namespace {

// Request: addresses, type and markers, then the fields, little-endian.
constexpr size_t kSummedFrom = 16;
constexpr size_t kPaddedPayload = 64;
constexpr uint32_t kSumStart = 0x5555;
constexpr uint8_t kRequestStart[] = {0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, 0x44, 0x44,
                                     0x44, 0x44, 0x44, 0x44, 0x07, 0x00, 0x55, 0xAA};
constexpr size_t kLargestFrame = 9018;
constexpr int kReceiveRoom = 64 << 20; // nothing is lost although nobody reads meanwhile

void put(Bytes &frame, uint32_t value, int size) {
    for (int i = 0; i < size; i++) {
        frame.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

int raw_socket(const char *interface) {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    if (fd < 0 || address.sll_ifindex == 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        throw std::runtime_error(std::string("raw socket on ") + interface);
    }
    return fd;
}

void enter_namespace(int fd) {
    if (setns(fd, CLONE_NEWNET) != 0) {
        throw std::runtime_error("setns");
    }
}

int raw_socket_on_card(const char *interface) {
    const char *name = getenv("RUK_CARD_NETNS");
    const int here = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there = open(name != nullptr ? name : "", O_RDONLY | O_CLOEXEC);
    enter_namespace(there);
    const int fd = raw_socket(interface);
    enter_namespace(here);
    (void)close(there);
    (void)close(here);
    return fd;
}

} // namespace

Bytes request_frame(const Request &request, const Bytes &data) {
    Bytes frame(std::begin(kRequestStart), std::end(kRequestStart));
    put(frame, request.model, 2);
    put(frame, request.slot, 1);
    put(frame, request.seq, 2);
    put(frame, request.code, 1);
    put(frame, request.addr, 4);
    put(frame, request.len, 2);
    frame.insert(frame.end(), data.begin(), data.end());
    if (data.size() < kPaddedPayload) {
        frame.resize(frame.size() + kPaddedPayload - data.size());
    }
    uint32_t sum = kSumStart;
    for (size_t i = kSummedFrom; i < frame.size(); i++) {
        sum += frame[i];
    }
    put(frame, sum, 2);
    return frame;
}

Bytes write_frame(uint8_t code, uint16_t seq, uint32_t addr, const Bytes &data) {
    return request_frame({.model = 1,
                          .slot = 3,
                          .seq = seq,
                          .code = code,
                          .addr = addr,
                          .len = static_cast<uint16_t>(data.size())},
                         data);
}

Capture::Capture() : fd_(raw_socket("eth0")) {
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveRoom, sizeof kReceiveRoom) != 0) {
        throw std::runtime_error("receive buffer of the capture");
    }
}

Capture::~Capture() {
    drain();
    std::string text = "frames on eth0:";
    for (const Bytes &frame : sent_) {
        text += "\nsent     " + hex(frame);
    }
    for (const Bytes &frame : received_) {
        text += "\nreceived " + hex(frame);
    }
    journal_add(text);
    (void)close(fd_);
}

void Capture::drain() {
    for (;;) {
        Bytes frame(kLargestFrame);
        sockaddr_ll from{};
        socklen_t from_size = sizeof from;
        const ssize_t size = recvfrom(fd_, frame.data(), frame.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr *>(&from), &from_size);
        if (size < 0) {
            return;
        }
        frame.resize(static_cast<size_t>(size));
        (from.sll_pkttype == PACKET_OUTGOING ? sent_ : received_).push_back(frame);
    }
}

const std::vector<Bytes> &Capture::sent() {
    drain();
    return sent_;
}

bool Capture::await_sent(size_t count) {
    const auto give_up = std::chrono::steady_clock::now() + kHang;
    while (sent().size() < count && std::chrono::steady_clock::now() < give_up) {
        std::this_thread::sleep_for(1ms);
    }
    return sent_.size() >= count;
}

const std::vector<Bytes> &Capture::received() {
    drain();
    return received_;
}

CardEnd::CardEnd() : fd_(raw_socket_on_card("card0")) {
}

CardEnd::~CardEnd() {
    (void)close(fd_);
}

void CardEnd::send(const Bytes &frame) const {
    (void)::send(fd_, frame.data(), frame.size(), 0); // a full cable is a lost frame
}

std::string hex(const Bytes &bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

Bytes from_hex(std::string_view text) {
    Bytes bytes;
    for (size_t at = 0; at < text.size();) {
        if (text[at] == ' ') {
            at += 1;
            continue;
        }
        bytes.push_back(
            static_cast<uint8_t>(std::stoul(std::string(text.substr(at, 2)), nullptr, 16)));
        at += 2;
    }
    return bytes;
}

} // namespace bed
