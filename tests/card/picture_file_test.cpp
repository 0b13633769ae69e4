// PNG files, decoded again and compared pixel by pixel.
#include "pictures/picture_file.h"

#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "new_file.h"

namespace {

namespace fs = std::filesystem;

struct Picture {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<uint8_t> rgb; // rows top-down
};

Picture decode(const std::string &path) {
    png_image png = {};
    png.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&png, path.c_str()), 0) << path << png.message;
    png.format = PNG_FORMAT_RGB;
    Picture out{png.width, png.height, std::vector<uint8_t>(PNG_IMAGE_SIZE(png))};
    EXPECT_NE(png_image_finish_read(&png, nullptr, out.rgb.data(), 0, nullptr), 0) << png.message;
    return out;
}

class PictureFileTest : public testing::Test {
protected:
    void SetUp() override {
        std::string path = (fs::temp_directory_path() / "card_picture_XXXXXX").string();
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        directory_ = path;
    }
    void TearDown() override {
        fs::remove_all(directory_);
    }
    std::string save(const card::PortPicture &picture) {
        return card::save_port_picture(picture, directory_, number_, path_);
    }
    std::string in_directory(const std::string &name) {
        return directory_ + "/" + name;
    }
    size_t file_count() {
        size_t count = 0;
        for (const auto &entry : fs::directory_iterator(directory_)) {
            count += entry.exists() ? 1U : 0U;
        }
        return count;
    }
    std::string directory_;
    uint32_t number_ = 1;
    std::string path_;
};

card::PortPicture port_picture(uint16_t width, uint16_t height, std::vector<uint8_t> bytes) {
    card::PortPicture picture;
    picture.width = width;
    picture.height = height;
    picture.received = bytes.size();
    picture.pixels = std::move(bytes);
    return picture;
}

TEST_F(PictureFileTest, TurnsThePortsRowsAndColoursRound) {
    EXPECT_EQ(save(port_picture(2, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})), "");
    EXPECT_EQ(path_, in_directory("picture-001.png"));
    const Picture picture = decode(path_);
    EXPECT_EQ(picture.width, 2U);
    EXPECT_EQ(picture.height, 2U);
    EXPECT_EQ(picture.rgb, (std::vector<uint8_t>{9, 8, 7, 12, 11, 10, 3, 2, 1, 6, 5, 4}));
}

TEST_F(PictureFileTest, SavesOddSizes) {
    for (const auto &[width, height] : {std::pair{1, 1}, {10, 3}, {641, 33}, {1, 500}}) {
        std::vector<uint8_t> bytes(static_cast<size_t>(width * height) * 3);
        for (size_t i = 0; i < bytes.size(); i++) {
            bytes[i] = static_cast<uint8_t>(i * 31 + i / 256);
        }
        ASSERT_EQ(
            save(port_picture(static_cast<uint16_t>(width), static_cast<uint16_t>(height), bytes)),
            "");
        const Picture picture = decode(path_);
        ASSERT_EQ(picture.rgb.size(), bytes.size());
        for (size_t i = 0; i < bytes.size(); i++) {
            const size_t line = static_cast<size_t>(width) * 3;
            const size_t y = static_cast<size_t>(height) - 1 - i / line;
            const size_t x = i % line / 3;
            ASSERT_EQ(picture.rgb[i], bytes[y * line + x * 3 + 2 - i % 3]) << i;
        }
    }
}

TEST_F(PictureFileTest, LeavesWhatIsMissingBlack) {
    EXPECT_EQ(save(port_picture(1, 3, {1, 2, 3, 4})), "");
    EXPECT_EQ(decode(path_).rgb, (std::vector<uint8_t>{0, 0, 0, 0, 0, 4, 3, 2, 1}));
    EXPECT_EQ(save(port_picture(1, 1, {})), "");
    EXPECT_EQ(decode(path_).rgb, (std::vector<uint8_t>{0, 0, 0}));
    EXPECT_EQ(save(port_picture(1, 1, {1, 2, 3, 4})), "");
    EXPECT_EQ(decode(path_).rgb, (std::vector<uint8_t>{3, 2, 1})) << "what is too much is left out";
}

TEST_F(PictureFileTest, ContinuesTheNumbersAndKeepsOldFiles) {
    std::ofstream(in_directory("picture-001.png")) << "old";
    std::ofstream(in_directory("picture-003.png")) << "old";
    EXPECT_EQ(save(port_picture(1, 1, {1, 2, 3})), "");
    EXPECT_EQ(path_, in_directory("picture-002.png"));
    EXPECT_EQ(save(port_picture(1, 1, {4, 5, 6})), "");
    EXPECT_EQ(path_, in_directory("picture-004.png"));
    EXPECT_EQ(fs::file_size(in_directory("picture-001.png")), 3U);
    number_ = 1000;
    EXPECT_EQ(save(port_picture(1, 1, {4, 5, 6})), "");
    EXPECT_EQ(path_, in_directory("picture-1000.png"));
}

TEST_F(PictureFileTest, SaysWhyItDoesNotSave) {
    EXPECT_EQ(save(port_picture(0, 7, {})),
              "picture: save '" + directory_ + "': the picture has no pixels");
    card::PortPicture large = port_picture(0xFFFF, 0xFFFF, {});
    EXPECT_EQ(save(large), "picture: save '" + directory_ + "': the picture is larger than 64 MiB");
    card::PortPicture dropped = port_picture(1, 1, {});
    dropped.received = 1;
    EXPECT_EQ(save(dropped),
              "picture: save '" + directory_ + "': too many pictures wait for the disk");
    EXPECT_EQ(file_count(), 0U);
    fs::remove(directory_);
    EXPECT_EQ(save(port_picture(1, 1, {1, 2, 3})), "picture: create '" + directory_ +
                                                       "/picture-001.png': No such file or "
                                                       "directory");
}

TEST_F(PictureFileTest, AFullDiskLeavesNoHalfPicture) {
    fs::create_symlink("/dev/full", in_directory("ddr2-0-00000000.png"));
    const card::Memory memory;
    const std::string error = card::save_ddr2_picture(
        memory, {.memory = 0, .addr = 0, .width = 640, .height = 480}, directory_, path_);
    EXPECT_TRUE(error.starts_with("picture: write '" + path_ + "': ")) << error;
    EXPECT_EQ(file_count(), 0U) << "the link is gone";
}

TEST_F(PictureFileTest, SavesARegionOfADdr2Memory) {
    card::Memory memory;
    // 17 pixels: 68 bytes in rows of 128.
    for (uint32_t y = 0; y < 3; y++) {
        for (uint32_t x = 0; x < 17; x++) {
            const std::vector<uint8_t> pixel = {0x55, static_cast<uint8_t>(x),
                                                static_cast<uint8_t>(y),
                                                static_cast<uint8_t>(x * y)};
            card::memory_write(memory, 0x8000 + y * 128 + x * 4, pixel);
        }
    }
    std::ofstream(in_directory("ddr2-1-00001000.png")) << std::string(10000, 'x');
    EXPECT_EQ(card::save_ddr2_picture(memory,
                                      {.memory = 1, .addr = 0x1000, .width = 17, .height = 3},
                                      directory_, path_),
              "");
    EXPECT_EQ(path_, in_directory("ddr2-1-00001000.png"));
    EXPECT_LT(fs::file_size(path_), 10000U) << "nothing is left of the old file";
    const Picture picture = decode(path_);
    ASSERT_EQ(picture.width, 17U);
    ASSERT_EQ(picture.height, 3U);
    for (uint32_t y = 0; y < 3; y++) {
        for (uint32_t x = 0; x < 17; x++) {
            const size_t at = (size_t{y} * 17 + x) * 3;
            EXPECT_EQ(picture.rgb[at], x);
            EXPECT_EQ(picture.rgb[at + 1], y);
            EXPECT_EQ(picture.rgb[at + 2], x * y);
        }
    }
}

TEST(Ddr2PictureOrder, HasToFit) {
    EXPECT_TRUE(card::ddr2_picture_fits({.memory = 1, .addr = 0, .width = 1920, .height = 1080}));
    EXPECT_TRUE(
        card::ddr2_picture_fits({.memory = 0, .addr = 0x1FFFFFF8, .width = 16, .height = 1}));
    EXPECT_FALSE(
        card::ddr2_picture_fits({.memory = 0, .addr = 0x1FFFFFF9, .width = 16, .height = 1}));
    EXPECT_FALSE(
        card::ddr2_picture_fits({.memory = 0, .addr = 0x1FFFFFF8, .width = 17, .height = 1}));
    EXPECT_FALSE(card::ddr2_picture_fits({.memory = 2, .addr = 0, .width = 1, .height = 1}));
    EXPECT_FALSE(card::ddr2_picture_fits({.memory = 0, .addr = 0, .width = 0, .height = 1}));
    EXPECT_FALSE(card::ddr2_picture_fits({.memory = 0, .addr = 0, .width = 1, .height = 0}));
    EXPECT_FALSE(card::ddr2_picture_fits({.memory = 0, .addr = 0, .width = 65536, .height = 1}));
    EXPECT_FALSE(
        card::ddr2_picture_fits({.memory = 0, .addr = 0, .width = 65535, .height = 65535}));
    EXPECT_FALSE(
        card::ddr2_picture_fits({.memory = 0, .addr = 0xFFFFFFFF, .width = 1, .height = 1}));
}

TEST_F(PictureFileTest, TriesTheDirectory) {
    EXPECT_EQ(card::check_directory("picture", directory_), "");
    EXPECT_EQ(file_count(), 0U) << "and leaves nothing behind";
    EXPECT_EQ(card::check_directory("picture", in_directory("none")),
              "picture: save in directory '" + in_directory("none") +
                  "': No such file or directory");
    std::ofstream(in_directory("file")) << "x";
    EXPECT_EQ(card::check_directory("picture", in_directory("file")),
              "picture: save in directory '" + in_directory("file") + "': Not a directory");
    // No rights help there, so that this holds for root as well.
    EXPECT_TRUE(card::check_directory("picture", "/proc")
                    .starts_with("picture: save in directory '/proc': "));
}

} // namespace
