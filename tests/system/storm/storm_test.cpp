// Thousands of requests over a bad link: none is lost without the card's counters explaining it.
#include "tests/system/bed/bed.h"
#include "tests/system/storm/host.h"

#include "mem/pool_counts.h"
#include "raw_msg/counters.h"
#include "raw_msg/raw_msg.h"

#include <atomic>
#include <cstring>
#include <sched.h>
#include <thread>

namespace bed {

namespace {

constexpr int kRequests = 10'000;
constexpr int kSenders = 16; // a loss costs a waiting sender 90 ms
constexpr int kOutstanding = 64;
constexpr uint32_t kBase = 0xa0000;
constexpr uint32_t kStride = 64;
constexpr uint32_t kMemory = kRequests * kStride + 1400;
constexpr uint16_t kModel = 1;
constexpr uint8_t kSlot = 3;
constexpr int32_t kOneTick = 1;

uint32_t address(int i) {
    return kBase + static_cast<uint32_t>(i) * kStride;
}

// Mostly short ones as for registers; full frames can only be read, as they reach into the next.
uint32_t length(int i) {
    return 1 + static_cast<uint32_t>(i) * 7 % kStride;
}

uint32_t read_length(int i) {
    return i % 10 == 0 ? 1400 : length(i);
}

// Never 0, so that what was not written or not read shows.
uint8_t byte_at(uint32_t addr) {
    const uint32_t mixed = addr * 2654435761U;
    return static_cast<uint8_t>(1 + (mixed >> 16) % 255);
}

Bytes bytes_at(uint32_t addr, uint32_t size) {
    Bytes bytes(size);
    for (uint32_t i = 0; i < size; i++) {
        bytes[i] = byte_at(addr + i);
    }
    return bytes;
}

ruk_counter_set counters_now() {
    ruk_counter_set counters{};
    counters.size = sizeof counters;
    EXPECT_EQ(ruk_counters(&counters), 0);
    return counters;
}

// The host's counts against the card's, from the other end of the cable.
void expect_agreement(const ruk_counter_set &before, const Counters &card) {
    const auto since = [&before](uint64_t(ruk_counter_set::*values)[RUK_COUNTED_LINKS]) {
        return static_cast<int64_t>((counters_now().*values)[0] - (before.*values)[0]);
    };
    // The last frames of the card are out, but perhaps not yet looked at.
    for (int i = 0; i < 5000 && since(&ruk_counter_set::frames_received) < card["replies"]; i++) {
        std::this_thread::sleep_for(1ms);
    }
    const int64_t replies = since(&ruk_counter_set::replies);
    const int64_t damaged = since(&ruk_counter_set::checksum_errors);
    const int64_t unanswered = since(&ruk_counter_set::unanswered);
    const int64_t resends = since(&ruk_counter_set::resends);
    EXPECT_EQ(since(&ruk_counter_set::frames_sent), card["requests"]);
    EXPECT_EQ(since(&ruk_counter_set::frames_received), card["replies"]);
    EXPECT_EQ(replies + damaged, card["replies"]);
    EXPECT_GE(damaged, card["corrupt"]); // those that were sent twice count twice
    EXPECT_EQ(since(&ruk_counter_set::unmatched_replies), replies - (kRequests - unanswered));
    EXPECT_EQ(unanswered, card["unanswered_requests"]);
    EXPECT_EQ(resends, card["resends"]);
    EXPECT_GE(since(&ruk_counter_set::timeouts), resends + unanswered);
    EXPECT_EQ(since(&ruk_counter_set::foreign_frames), 0);
    EXPECT_EQ(since(&ruk_counter_set::refusals), 0);
    EXPECT_EQ(since(&ruk_counter_set::send_errors), 0);
    EXPECT_EQ(since(&ruk_counter_set::receive_errors), 0);
    for (const uint64_t under_way : counters_now().queued[0]) {
        EXPECT_EQ(under_way, 0U);
    }
}

bool is_untouched(const Bytes &bytes) {
    return bytes == Bytes(bytes.size());
}

class Storm : public SystemTest {
protected:
    // The card answers with real-time priority, as the receive thread does: what is late on a busy
    // machine is then not late because of them.
    Storm()
        : card({"--drop", "3", "--drop-requests", "2", "--corrupt", "2", "--duplicate", "2",
                "--memory-load", directory.file("before", bytes_at(kBase, kMemory)) + "@a0000",
                "--memory-save", directory.path("after") + "@1000000:" + std::to_string(kMemory)},
               Card::Priority::kRealTime) {
    }

    Counters stop_card() {
        const Counters counters = card.stop();
        for (const char *fault : {"drop", "drop_request", "corrupt", "duplicate"}) {
            EXPECT_GE(counters[fault], kRequests / 100) << fault;
        }
        EXPECT_EQ(host.kernel_drops(), 0U);
        EXPECT_EQ(counters["bad_frames"], 0);
        expect_agreement(before, counters);
        return counters;
    }

    Directory directory;
    Card card;
    Host host;
    int64_t handed_out = mem_handed_out();
    ruk_counter_set before = counters_now();
};

// Run request(i) for every i on several threads; returns how many were false.
template <typename Request>
int failures_of(Request request) {
    std::atomic<int> next{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> senders;
    for (int k = 0; k < kSenders; k++) {
        senders.emplace_back([&] {
            for (int i = next++; i < kRequests; i = next++) {
                if (!request(i)) {
                    failures++;
                }
            }
        });
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    return failures;
}

// Send every request with some of them outstanding, until each has posted.
template <typename Request>
void send_all(Request request) {
    int ended = 0;
    for (int i = 0; i < kRequests; i++) {
        if (i - ended >= kOutstanding) {
            while (sem_wait(&sem_test) != 0) {
            }
            ended += 1;
        }
        ASSERT_EQ(request(i), 0);
    }
    for (; ended < kRequests; ended++) {
        while (sem_wait(&sem_test) != 0) {
        }
    }
}

// Writes go elsewhere than the reads' bytes, which are there from the start.
constexpr uint32_t kWriteBase = 0x1000000;

uint32_t write_address(int i) {
    return kWriteBase + static_cast<uint32_t>(i) * kStride;
}

// What the card holds where request i wrote.
Bytes written(const Bytes &after, int i) {
    return part(after, static_cast<size_t>(i) * kStride, length(i));
}

TEST_F(Storm, WaitingReadsFailOnlyWhenTheirAnswerWasLost) {
    std::atomic<int> wrong{0};
    const int failures = failures_of([&wrong](int i) {
        Bytes data(1400);
        uint32_t received = 0;
        const int result = RawSockSendMsgWithReadWait(
            0, kModel, kSlot, address(i), kRead, read_length(i), data.data(), &received, kOneTick);
        data.resize(read_length(i));
        const bool is_right =
            received == read_length(i) && data == bytes_at(address(i), read_length(i));
        const bool is_untold = received == 0 && is_untouched(data);
        wrong += result == 0 ? !is_right : !is_untold;
        return result == 0;
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(posts(), kRequests);
    EXPECT_EQ(settled_handed_out(handed_out), handed_out);
    const Counters counters = stop_card();
    EXPECT_EQ(counters["reads"], kRequests);
    EXPECT_EQ(failures, counters["unanswered_requests"]) << counters.json;
}

TEST_F(Storm, WaitingWritesFailOnlyWhenTheirAnswerWasLost) {
    std::vector<uint8_t> acks(kRequests);
    const int failures = failures_of([&acks](int i) {
        const Bytes data = bytes_at(write_address(i), length(i));
        uint8_t &ack = acks[static_cast<size_t>(i)];
        const int result = RawSockSendMsgWithAckWait(0, kModel, kSlot, write_address(i), kWriteAck,
                                                     data.data(), length(i), &ack, kOneTick);
        return result == 0;
    });
    EXPECT_EQ(posts(), kRequests);
    EXPECT_EQ(settled_handed_out(handed_out), handed_out);
    const Counters counters = stop_card();
    EXPECT_EQ(counters["acknowledged_writes"], kRequests);
    EXPECT_EQ(failures, counters["unanswered_requests"]) << counters.json;
    const Bytes after = content_of(directory.path("after"));
    ASSERT_EQ(after.size(), kMemory);
    int missing = 0;
    int wrong = 0;
    for (int i = 0; i < kRequests; i++) {
        const Bytes now = written(after, i);
        const uint8_t ack = acks[static_cast<size_t>(i)];
        missing += is_untouched(now);
        wrong += now != bytes_at(write_address(i), length(i)) && !(is_untouched(now) && ack != 0);
        wrong += ack != 0 && ack != 255;
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(missing, counters["drop_request"]); // only the lost requests did nothing
}

TEST_F(Storm, ReadsFailOnlyWhenThreeTransmissionsWereLost) {
    std::vector<Bytes> buffers(kRequests, Bytes(1400));
    send_all([&buffers](int i) {
        return RawSockSendMsgWithRead(0, 0, kModel, kSlot, address(i), kRead, read_length(i),
                                      buffers[static_cast<size_t>(i)].data(), nullptr);
    });
    EXPECT_EQ(posts(), 0); // exactly one each
    EXPECT_EQ(settled_handed_out(handed_out), handed_out);
    const Counters counters = stop_card();
    int failures = 0;
    for (int i = 0; i < kRequests; i++) {
        const Bytes data = part(buffers[static_cast<size_t>(i)], 0, read_length(i));
        failures += is_untouched(data);
        EXPECT_TRUE(is_untouched(data) || data == bytes_at(address(i), read_length(i))) << i;
    }
    EXPECT_EQ(failures, counters["unanswered_requests"]) << counters.json;
    EXPECT_GE(counters["resends"], kRequests / 100);
    EXPECT_LE(failures, kRequests / 500); // three in a row are rare: 3 or 4 of 10000
}

TEST_F(Storm, WritesFailOnlyWhenThreeTransmissionsWereLost) {
    send_all([](int i) {
        const Bytes data = bytes_at(write_address(i), length(i));
        return RawSockSendMsgWithAck(0, 0, kModel, kSlot, write_address(i), kWriteAck, data.data(),
                                     length(i));
    });
    EXPECT_EQ(posts(), 0);
    EXPECT_EQ(settled_handed_out(handed_out), handed_out);
    const Counters counters = stop_card();
    const Bytes after = content_of(directory.path("after"));
    ASSERT_EQ(after.size(), kMemory);
    int missing = 0;
    for (int i = 0; i < kRequests; i++) {
        const Bytes now = written(after, i);
        missing += is_untouched(now);
        EXPECT_TRUE(is_untouched(now) || now == bytes_at(write_address(i), length(i))) << i;
    }
    EXPECT_LE(missing, counters["unanswered_requests"]) << counters.json; // some were carried out
    EXPECT_GE(counters["resends"], kRequests / 100);
    EXPECT_LE(counters["unanswered_requests"], kRequests / 500);
}

} // namespace

} // namespace bed
