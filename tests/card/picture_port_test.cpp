// The card's picture port, request by request.
#include "picture_bed.h"

namespace {

using picture_bed::part;
using picture_bed::pattern;
using picture_bed::port_size;
using requests::Frame;

class PicturePortTest : public picture_bed::PictureBed {
protected:
    void start(uint16_t width, uint16_t height) {
        control(0x7040, port_size(width, height));
        control(0x7040, {1});
    }
    void send_pixels(const Frame &pixels) {
        for (size_t at = 0; at < pixels.size(); at += 1400) {
            write(0x40000, part(pixels, at, std::min<size_t>(1400, pixels.size() - at)));
        }
    }
    void stop() {
        control(0x7040, {0});
    }
    std::vector<card::PortPicture> &finished() {
        return card_->picture.port.finished;
    }
};

TEST_F(PicturePortTest, ReceivesAPicture) {
    const Frame pixels = pattern(size_t{641} * 33 * 3);
    start(641, 33);
    send_pixels(pixels);
    EXPECT_TRUE(finished().empty()) << "not before the stop";
    stop();
    ASSERT_EQ(finished().size(), 1U);
    EXPECT_EQ(finished()[0].width, 641);
    EXPECT_EQ(finished()[0].height, 33);
    EXPECT_EQ(finished()[0].pixels, pixels);
    EXPECT_EQ(counters().port_pictures, 1U);
    EXPECT_EQ(counters().port_complete, 1U);
    EXPECT_EQ(counters().port_bytes, pixels.size());
    EXPECT_EQ(counters().picture_bad_controls, 0U);
    EXPECT_EQ(card::port_text(finished()[0]), "picture port: 641 x 33, 63459 bytes, complete");
}

TEST_F(PicturePortTest, TellsShortAndLongPictures) {
    start(2, 2);
    send_pixels(Frame(11, 1));
    stop();
    start(2, 2);
    send_pixels(Frame(13, 1));
    stop();
    start(2, 2);
    stop();
    ASSERT_EQ(finished().size(), 3U);
    EXPECT_EQ(counters().port_short, 2U);
    EXPECT_EQ(counters().port_long, 1U);
    EXPECT_EQ(counters().port_complete, 0U);
    EXPECT_EQ(card::port_text(finished()[0]), "picture port: 2 x 2, 11 of 12 bytes, 1 missing");
    EXPECT_EQ(card::port_text(finished()[1]), "picture port: 2 x 2, 13 of 12 bytes, 1 too many");
    EXPECT_EQ(card::port_text(finished()[2]), "picture port: 2 x 2, 0 of 12 bytes, 12 missing");
    EXPECT_EQ(finished()[1].pixels, Frame(12, 1));
}

TEST_F(PicturePortTest, RepeatsOfAControlWriteChangeNothing) {
    const Frame pixels = pattern(12);
    start(2, 2);
    start(2, 2);
    send_pixels(pixels);
    stop();
    stop();
    ASSERT_EQ(finished().size(), 1U);
    EXPECT_EQ(finished()[0].pixels, pixels);
    EXPECT_EQ(counters().port_pictures, 1U);
}

TEST_F(PicturePortTest, AStartWithoutAStopEndsThePictureBefore) {
    start(2, 2);
    send_pixels(Frame(6, 1));
    start(1, 1);
    send_pixels(Frame(3, 2));
    stop();
    ASSERT_EQ(finished().size(), 2U);
    EXPECT_EQ(finished()[0].width, 2);
    EXPECT_EQ(finished()[0].received, 6U);
    EXPECT_EQ(finished()[1].width, 1);
    EXPECT_EQ(finished()[1].pixels, Frame(3, 2));
    EXPECT_EQ(counters().port_short, 1U);
    EXPECT_EQ(counters().port_complete, 1U);
}

TEST_F(PicturePortTest, AStartBehindASingleByteIsNoRepeat) {
    start(1, 1);
    send_pixels({1});
    start(1, 1);
    send_pixels({2, 3, 4});
    stop();
    ASSERT_EQ(finished().size(), 2U);
    EXPECT_EQ(finished()[0].received, 1U);
    EXPECT_EQ(finished()[1].pixels, (Frame{2, 3, 4}));
}

TEST_F(PicturePortTest, KeepsTheSizeForTheNextPictureAndTheRunningOneAsItIs) {
    start(1, 1);
    control(0x7040, port_size(5, 5));
    send_pixels(Frame(3, 2));
    stop();
    control(0x7040, {1});
    stop();
    ASSERT_EQ(finished().size(), 2U);
    EXPECT_EQ(finished()[0].width, 1);
    EXPECT_EQ(finished()[1].width, 5);
}

TEST_F(PicturePortTest, CountsWhatMeansNothing) {
    control(0x7040, {1});
    control(0x7040, {0});
    EXPECT_EQ(counters().picture_bad_controls, 2U) << "no size yet";
    control(0x7040, {});
    control(0x7040, {2});
    control(0x7040, {1, 2});
    control(0x7040, {1, 2, 0, 2, 0, 0});
    control(0x7040, {0, 2, 0, 2, 0, 1});
    control(0x7040, {0, 2, 0, 2, 0, 0, 0});
    EXPECT_EQ(counters().picture_bad_controls, 8U);
    write(0x40000, {1, 2, 3});
    EXPECT_EQ(counters().port_stray_blocks, 1U);
    EXPECT_EQ(counters().port_bytes, 0U);
    EXPECT_EQ(read(0x40000, 3), (Frame{1, 2, 3})) << "an ordinary register";
    EXPECT_TRUE(finished().empty());
}

TEST_F(PicturePortTest, APictureOfNoPixelsIsComplete) {
    start(0, 7);
    stop();
    EXPECT_EQ(counters().port_complete, 1U);
}

TEST_F(PicturePortTest, TakesTheLargestSizeWithoutTheMemoryForIt) {
    start(0xFFFF, 0xFFFF);
    send_pixels(Frame(1400, 1));
    stop();
    ASSERT_EQ(finished().size(), 1U);
    EXPECT_EQ(finished()[0].pixels.capacity(), 0U);
    EXPECT_EQ(card::port_text(finished()[0]),
              "picture port: 65535 x 65535, 1400 of 12884508675 bytes, 12884507275 missing");
}

TEST_F(PicturePortTest, KeepsNoPixelsWhenNobodyWantsThem) {
    card_->picture.port.keep_pixels = false;
    start(2, 2);
    send_pixels(Frame(12, 1));
    stop();
    ASSERT_EQ(finished().size(), 1U);
    EXPECT_TRUE(finished()[0].pixels.empty());
    EXPECT_EQ(counters().port_complete, 1U);
}

TEST_F(PicturePortTest, KeepsABoundedNumberOfPicturesThatNobodyTakes) {
    control(0x7040, port_size(1, 1));
    for (int i = 0; i < 4100; i++) {
        control(0x7040, {1});
        control(0x7040, {0});
    }
    EXPECT_EQ(finished().size(), 4096U);
    EXPECT_EQ(counters().port_pictures, 4100U);
    EXPECT_EQ(counters().picture_save_errors, 4U);
    card_->picture.port.keep_pixels = false;
    start(1, 1);
    stop();
    EXPECT_EQ(counters().picture_save_errors, 4U) << "nothing was to be saved";
}

} // namespace
