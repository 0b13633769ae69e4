// Firmware as files, compared byte by byte.
#include "firmware/firmware_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "new_file.h"

namespace {

namespace fs = std::filesystem;

std::string contents(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class FirmwareFileTest : public testing::Test {
protected:
    void SetUp() override {
        std::string path = (fs::temp_directory_path() / "card_firmware_XXXXXX").string();
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        directory_ = path;
    }
    void TearDown() override {
        fs::remove_all(directory_);
    }
    // An image of this firmware; what its head holds does not matter here.
    std::string save(const std::string &firmware) {
        std::vector<uint8_t> image(256, 0xEE);
        image.insert(image.end(), firmware.begin(), firmware.end());
        return card::save_firmware(image, directory_, number_, path_);
    }
    std::string in_directory(const std::string &name) {
        return directory_ + "/" + name;
    }
    std::string directory_;
    uint32_t number_ = 1;
    std::string path_;
};

TEST_F(FirmwareFileTest, SavesTheFirmwareWithoutItsHead) {
    const std::string firmware = std::string("\0firm\xFF\r\n", 8) + std::string(5000, 'x');
    EXPECT_EQ(save(firmware), "");
    EXPECT_EQ(path_, in_directory("firmware-001.bin"));
    EXPECT_EQ(contents(path_), firmware);
    EXPECT_EQ(save(""), "");
    EXPECT_EQ(path_, in_directory("firmware-002.bin"));
    EXPECT_EQ(fs::file_size(path_), 0U);
}

TEST_F(FirmwareFileTest, ContinuesTheNumbersAndKeepsOldFiles) {
    std::ofstream(in_directory("firmware-001.bin")) << "old";
    std::ofstream(in_directory("firmware-003.bin")) << "old";
    EXPECT_EQ(save("a"), "");
    EXPECT_EQ(path_, in_directory("firmware-002.bin"));
    EXPECT_EQ(save("b"), "");
    EXPECT_EQ(path_, in_directory("firmware-004.bin"));
    EXPECT_EQ(contents(in_directory("firmware-001.bin")), "old");
    EXPECT_EQ(contents(in_directory("firmware-003.bin")), "old");
    EXPECT_EQ(contents(in_directory("firmware-004.bin")), "b");
}

TEST_F(FirmwareFileTest, SaysWhyItDoesNotSave) {
    EXPECT_EQ(card::save_firmware({}, directory_, number_, path_),
              "firmware: save '" + directory_ + "': too much firmware waits for the disk");
    EXPECT_TRUE(fs::is_empty(directory_));
    fs::remove(directory_);
    EXPECT_EQ(save("a"),
              "firmware: create '" + directory_ + "/firmware-001.bin': No such file or directory");
}

TEST_F(FirmwareFileTest, AFullDiskLeavesNoHalfFile) {
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit small = before;
    small.rlim_cur = 4096;
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string error = save(std::string(10000, 'x'));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    (void)std::signal(SIGXFSZ, handler);
    EXPECT_EQ(error, "firmware: write '" + in_directory("firmware-001.bin") + "': File too large");
    EXPECT_TRUE(fs::is_empty(directory_));
}

TEST_F(FirmwareFileTest, TriesTheDirectory) {
    EXPECT_EQ(card::check_directory("firmware", directory_), "");
    EXPECT_TRUE(fs::is_empty(directory_)) << "and leaves nothing behind";
    EXPECT_EQ(card::check_directory("firmware", in_directory("none")),
              "firmware: save in directory '" + in_directory("none") +
                  "': No such file or directory");
}

} // namespace
