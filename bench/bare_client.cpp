#include "clients.h"

#include "eth_raw/eth_raw.h"
#include "eth_raw/frame_layout.h"
#include "packet_socket.h"
#include "requests.h"
#include "run_apart.h"
#include "statistics.h"

#include <algorithm>
#include <array>
#include <sys/time.h>

namespace {

using Buffer = std::array<uint8_t, 1450>; // as large as the product's

void send_frame(const PacketSocket &link, const std::vector<uint8_t> &frame) {
    if (sendto(link.fd, frame.data(), frame.size(), 0,
               reinterpret_cast<const sockaddr *>(&link.address),
               sizeof link.address) != static_cast<ssize_t>(frame.size())) {
        die("bare client: send");
    }
}

void receive_reply(const PacketSocket &link, Buffer &buffer, uint16_t seq) {
    for (;;) {
        const ssize_t received =
            recvfrom(link.fd, buffer.data(), buffer.size(), 0, nullptr, nullptr);
        if (received < 0) {
            die("bare client: receive");
        }
        if (received >= static_cast<ssize_t>(reply::kHeaderSize) &&
            load_le(buffer.data(), reply::kMarker1) == kRequestMarker2 &&
            load_le(buffer.data(), reply::kSeq) == seq) {
            return;
        }
    }
}

// A request with the next number costs two sums, not a walk over the frame.
class Numbered {
public:
    explicit Numbered(const RoundTrip &what)
        : frame_(make_request(what.code, kAddress, 0, what.len)), sum_at_{frame_.size() -
                                                                              kChecksumSize,
                                                                          kChecksumSize},
          sum_(load_le(frame_.data(), sum_at_)) {
    }
    const std::vector<uint8_t> &with(uint16_t seq) {
        store_le(frame_.data(), request::kSeq, seq);
        store_le(frame_.data(), sum_at_, sum_ + (seq & 0xFFU) + (seq >> 8));
        return frame_;
    }

private:
    std::vector<uint8_t> frame_;
    Field sum_at_;
    uint32_t sum_;
};

PacketSocket open_link(int index) {
    const PacketSocket link = open_packet_socket(g_netdev_name[index]);
    const timeval patience{.tv_sec = 1, .tv_usec = 0}; // a lost frame must not hang the benchmark
    if (setsockopt(link.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
        die("bare client: limit the wait");
    }
    return link;
}

double time_round_trips(const PacketSocket &link, const RoundTrip &what, int count) {
    Numbered frames(what);
    Buffer buffer{};
    std::vector<double> times;
    times.reserve(static_cast<size_t>(count));
    for (int i = -count / 10; i < count; i++) { // the first tenth warms up
        const auto seq = static_cast<uint16_t>(i);
        const double start = now_us();
        send_frame(link, frames.with(seq));
        receive_reply(link, buffer, seq);
        const double taken = now_us() - start;
        if (i >= 0) {
            times.push_back(taken);
        }
    }
    return median(times);
}

} // namespace

std::vector<double> bare_round_trips(int index, int cpu, int count) {
    pin_to(cpu);
    const PacketSocket link = open_link(index);
    std::vector<double> medians;
    medians.reserve(kRoundTrips.size());
    for (const RoundTrip &what : kRoundTrips) {
        medians.push_back(time_round_trips(link, what, count));
    }
    return medians;
}

std::vector<double> bare_writes(int index, int cpu, uint32_t bytes, int count) {
    pin_to(cpu);
    const PacketSocket link = open_link(index);
    std::vector<std::vector<uint8_t>> frames;
    frames.reserve(bytes / kMaxPayload + 1);
    for (uint32_t offset = 0; offset < bytes; offset += kMaxPayload) {
        frames.push_back(
            make_request(kWriteCode, kAddress + offset, 0, std::min(kMaxPayload, bytes - offset)));
    }
    std::vector<double> times;
    times.reserve(static_cast<size_t>(count));
    for (int i = -1; i < count; i++) {
        const double start = now_us();
        for (const auto &frame : frames) {
            send_frame(link, frame);
        }
        const double taken = now_us() - start;
        if (i >= 0) {
            times.push_back(taken);
        }
    }
    return {median(times)};
}

void bare_read_once(int index) {
    const PacketSocket link = open_link(index);
    Buffer buffer{};
    send_frame(link, Numbered(kRoundTrips[0]).with(0));
    receive_reply(link, buffer, 0);
}
