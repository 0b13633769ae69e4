#include "trace.h"

#include <gtest/gtest.h>

#include <memory>

#include "requests.h"

namespace {

using requests::Frame;

struct Lines {
    std::string received;
    std::string sent; // of the last frame
};

Lines trace(const Frame &frame, const card::FaultConfig &config = {}) {
    const auto card = std::make_unique<card::Card>();
    const auto outcome = std::make_unique<card::Outcome>();
    card->faults = card::make_fault_engine(config);
    const card::Arrival arrival{frame, 0, 1000002};
    card::card_receive(*card, arrival, *outcome);
    Lines lines;
    lines.received = card::trace_received("card0", arrival, *outcome);
    if (outcome->count > 0) {
        lines.sent = card::trace_sent("card0", 1000010, outcome->replies[outcome->count - 1]);
    }
    return lines;
}

TEST(Trace, ShowsARequestAndItsAnswer) {
    const Lines lines = trace(requests::write_ack(0x7040, {0x01, 0xAB}, 5));
    EXPECT_EQ(lines.received, "    1.000002 card0 rx   94 write-ack model 0001 slot 03 seq 5 addr "
                              "00007040 len 2 data 01 ab -> carried out");
    EXPECT_EQ(lines.sent, "    1.000010 card0 tx   60 ack status 00 model 0001 slot 03 seq 5 addr "
                          "00007040 len 0");
}

TEST(Trace, ShowsWhatWasDoneToAReply) {
    const Lines lost = trace(requests::read(0x10, 20, 6), {.nth = {{card::Fault::kDrop, 1}}});
    EXPECT_EQ(lost.sent, "    1.000010 card0 --   60 data status 00 model 0001 slot 03 seq 6 addr "
                         "00000010 len 20 data 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ... "
                         "-> not sent [drop]");
    const Lines spoilt = trace(
        requests::write_ack(0x10, {}),
        {.nth = {{card::Fault::kCorrupt, 1}, {card::Fault::kDuplicate, 1}}, .ack_code = 0x10});
    EXPECT_TRUE(spoilt.sent.ends_with(" len 0 [corrupt duplicate ack_code]")) << spoilt.sent;
}

TEST(Trace, ShowsWhyAFrameIsNotAnswered) {
    Frame bad = requests::read(0x10, 4);
    bad.back() ^= 0xFF;
    EXPECT_TRUE(trace(bad).received.ends_with("checksum aa6d should be 556d -> bad: checksum"))
        << trace(bad).received;
    EXPECT_EQ(trace(Frame{1, 2, 3}).received,
              "    1.000002 card0 rx    3 frame 010203 -> ignored: other protocol");
    Frame short_one = requests::read(0x10, 4);
    short_one.resize(20);
    EXPECT_EQ(trace(short_one).received,
              "    1.000002 card0 rx   20 too short to tell -> bad: length");
}

TEST(Trace, SurvivesFramesOfEveryLength) {
    const Frame whole = requests::write_ack(0x10, Frame(1400, 1));
    for (size_t size = 0; size <= whole.size(); size++) {
        EXPECT_FALSE(
            trace({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)}).received.empty());
    }
}

} // namespace
