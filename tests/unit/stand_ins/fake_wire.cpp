#include "stand_ins/fake_wire.h"

#include "eth_raw/link_state.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>
#include <semaphore.h>
#include <sys/socket.h>

namespace {

struct SendResult {
    ssize_t result;
    int error;
};

struct Delivery {
    Frame frame;
    int error; // 0: the frame, else the failure
};

struct Wire {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<Frame> sent;
    std::vector<int> descriptors;
    std::vector<const void *> receive_buffers;
    std::deque<SendResult> next_sends;
    std::deque<Delivery> deliveries;
    sem_t delivered;
};

Wire &wire() {
    static auto *the_wire = [] {
        auto *made = new Wire{};
        sem_init(&made->delivered, 0, 0);
        return made;
    }();
    return *the_wire;
}

void note_buffer(Wire &w, const void *data) {
    const std::lock_guard guard(w.lock);
    if (std::ranges::find(w.receive_buffers, data) == w.receive_buffers.end()) {
        w.receive_buffers.push_back(data);
    }
}

constexpr int kDescriptor = 1000; // never open in a test, so a send that slips through fails

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                      socklen_t to_size);
ssize_t __wrap_recvfrom(int fd, void *data, size_t size, int flags, sockaddr *from,
                        socklen_t *from_size);

ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr * /*to*/,
                      socklen_t /*to_size*/) {
    EXPECT_EQ(flags, 0);
    Wire &w = wire();
    const std::lock_guard guard(w.lock);
    const auto *bytes = static_cast<const uint8_t *>(data);
    w.sent.emplace_back(bytes, bytes + size);
    w.descriptors.push_back(fd);
    w.changed.notify_all();
    if (w.next_sends.empty()) {
        return static_cast<ssize_t>(size);
    }
    const SendResult next = w.next_sends.front();
    w.next_sends.pop_front();
    errno = next.error;
    return next.result == kWholeFrame ? static_cast<ssize_t>(size) : next.result;
}

ssize_t __wrap_recvfrom(int /*fd*/, void *data, size_t size, int flags, sockaddr * /*from*/,
                        socklen_t * /*from_size*/) {
    EXPECT_EQ(flags, 0);
    Wire &w = wire();
    note_buffer(w, data);
    while (sem_wait(&w.delivered) == -1) {
    }
    const std::lock_guard guard(w.lock);
    const Delivery next = w.deliveries.front();
    w.deliveries.pop_front();
    if (next.error != 0) {
        errno = next.error;
        return -1;
    }
    const size_t received = std::min(size, next.frame.size());
    std::copy_n(next.frame.begin(), received, static_cast<uint8_t *>(data));
    return static_cast<ssize_t>(received);
}

} // extern "C"

#pragma GCC visibility pop

void wire_open(int index) {
    {
        Wire &w = wire();
        const std::lock_guard guard(w.lock);
        w.sent.clear();
        w.descriptors.clear();
        w.receive_buffers.clear();
        w.next_sends.clear();
        w.deliveries.clear();
        while (sem_trywait(&w.delivered) == 0) {
        }
    }
    link_fill(g_eth_init[index], static_cast<uint32_t>(index), kDescriptor + index, {}, true);
    errno = 0;
}

void wire_close(int index) {
    g_eth_init[index].flag = 0;
    g_eth_init[index].sock_fd = 0;
}

std::vector<Frame> wire_sent() {
    Wire &w = wire();
    const std::lock_guard guard(w.lock);
    return w.sent;
}

std::vector<int> wire_descriptors() {
    Wire &w = wire();
    const std::lock_guard guard(w.lock);
    return w.descriptors;
}

std::vector<const void *> wire_receive_buffers() {
    Wire &w = wire();
    const std::lock_guard guard(w.lock);
    return w.receive_buffers;
}

bool wire_await_sent(size_t count) {
    Wire &w = wire();
    std::unique_lock guard(w.lock);
    return w.changed.wait_for(guard, std::chrono::seconds(10),
                              [&] { return w.sent.size() >= count; });
}

void wire_next_send(ssize_t result, int error) {
    Wire &w = wire();
    const std::lock_guard guard(w.lock);
    w.next_sends.push_back({result, error});
}

void wire_deliver(const Frame &frame) {
    Wire &w = wire();
    {
        const std::lock_guard guard(w.lock);
        w.deliveries.push_back({frame, 0});
    }
    sem_post(&w.delivered);
}

void wire_deliver_failure(int error) {
    Wire &w = wire();
    {
        const std::lock_guard guard(w.lock);
        w.deliveries.push_back({{}, error});
    }
    sem_post(&w.delivered);
}

Frame make_reply(uint8_t ack, uint16_t model, uint8_t slot, uint16_t seq, uint8_t code,
                 uint32_t addr, const std::vector<uint8_t> &data) {
    Frame f = {0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0xEB, 0x90, 0xEB,
               0x90, 0xEB, 0x90, 0x07, 0x00, 0xAA, 0x55, ack};
    const auto put = [&f](uint32_t value, int bytes) {
        for (int i = 0; i < bytes; i++) {
            f.push_back(static_cast<uint8_t>(value >> (8 * i)));
        }
    };
    put(model, 2);
    put(slot, 1);
    put(seq, 2);
    put(code, 1);
    put(addr, 4);
    put(static_cast<uint32_t>(data.size()), 2);
    f.insert(f.end(), data.begin(), data.end());
    unsigned sum = 0x5555;
    for (size_t i = 16; i < f.size(); i++) {
        sum += f[i];
    }
    put(sum & 0xFFFF, 2);
    return f;
}

uint16_t seq_of(const Frame &request) {
    return static_cast<uint16_t>(request.at(19) | request.at(20) << 8);
}

uint32_t addr_of(const Frame &request) {
    return request.at(22) | static_cast<uint32_t>(request.at(23)) << 8 |
           static_cast<uint32_t>(request.at(24)) << 16 |
           static_cast<uint32_t>(request.at(25)) << 24;
}

uint16_t len_of(const Frame &request) {
    return static_cast<uint16_t>(request.at(26) | request.at(27) << 8);
}
