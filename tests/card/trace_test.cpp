#include "run/trace.h"

#include <gtest/gtest.h>

#include <memory>

#include "requests.h"
#include "run/protocols.h"

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

TEST(Trace, SaysWhatRequestsMeanToThePictureSide) {
    const Frame record = {0x80, 0x07, 0, 0, 0xF0, 0, 1};
    const struct {
        Frame frame;
        const char *text; // empty: nothing is added
    } cases[] = {
        {requests::plain_write(0xB0578, {1}), " = ddr2 0 chunk offset 1400 ->"},
        {requests::plain_write(0xF0000, {1}), " = ddr2 1 chunk offset 0 ->"},
        {requests::plain_write(0xF3FFF, {1}), " = ddr2 1 chunk offset 16383 ->"},
        {requests::plain_write(0xF4000, {1}), ""},
        {requests::plain_write(0xA0001, record),
         " = ddr2 0 move addr 00000780 bursts 240 mode 1 ->"},
        {requests::plain_write(0xA0001, {0x80, 0x07, 0, 0, 0xF0, 0, 16}),
         " = ddr2 0 move addr 00000780 bursts 240 mode 16 ->"},
        {requests::plain_write(0xE0001, {1}), " = ddr2 1 move (wrong length) ->"},
        {requests::plain_write(0xE0008, record),
         " = ddr2 1 read-back addr 00000780 bursts 240 mode 1 ->"},
        {requests::plain_write(0xA00FF, {1}), " = ddr2 0 start ->"},
        {requests::read(0xA0FFD, 1), " = ddr2 0 status ->"},
        {requests::read(0xF0000, 1), " = ddr2 1 data ->"},
        {requests::write_ack(0x7040, {0, 0x80, 2, 0xE0, 1, 0}),
         " = picture port size 640 x 480 ->"},
        {requests::write_ack(0x7040, {1}), " = picture port start ->"},
        {requests::write_ack(0x7040, {0}), " = picture port stop ->"},
        {requests::plain_write(0x40000, {1}), " = picture port pixels ->"},
        {requests::write_ack(0x7040, {2}), ""},
        {requests::read(0x7040, 1), ""},
        {requests::read(0xB0001, 1), ""},
        {requests::read(0x40000, 1), ""},
    };
    for (const auto &row : cases) {
        const std::string line = trace(row.frame).received;
        if (*row.text == '\0') {
            EXPECT_EQ(line.find(" = "), std::string::npos) << line;
        } else {
            EXPECT_NE(line.find(row.text), std::string::npos) << line;
        }
    }
}

TEST(Trace, SurvivesFramesOfEveryLength) {
    const Frame whole = requests::write_ack(0x10, Frame(1400, 1));
    for (size_t size = 0; size <= whole.size(); size++) {
        EXPECT_FALSE(
            trace({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)}).received.empty());
    }
}

} // namespace
