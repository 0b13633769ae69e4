// Firmware over the link: every frame, every byte on standard output, every way to fail.
#include "ap_msg/ap_msg.h"
#include "helpers/log_lines.h"
#include "helpers/temp_files.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_home.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <numeric>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr int32_t kTicks = 30;
constexpr size_t kFields = 7;
constexpr char kImage[] = "updatebin.tmp";
constexpr char kSuccess[] = " file open success\xEF\xBC\x81"; // a full-width exclamation mark

void put(Bytes &to, size_t at, uint32_t value, size_t width) {
    for (size_t i = 0; i < width; i++) {
        to.at(at + i) = static_cast<uint8_t>(value >> (8 * i));
    }
}

Bytes image_of(const Bytes &firmware) {
    Bytes image(256);
    put(image, 0, static_cast<uint32_t>(firmware.size()), 4);
    put(image, 130, std::accumulate(firmware.begin(), firmware.end(), 0x5555U), 2);
    image.insert(image.end(), firmware.begin(), firmware.end());
    return image;
}

Bytes le32(uint32_t value) {
    Bytes bytes(4);
    put(bytes, 0, value, 4);
    return bytes;
}

// The calls of a whole transfer, in order.
std::vector<CardCall> transfer(const Bytes &image, uint8_t slot, uint8_t type_high,
                               uint8_t type_low) {
    const auto size = static_cast<uint32_t>(image.size());
    std::vector<CardCall> calls;
    const auto add = [&](uint32_t addr, const Bytes &bytes) {
        calls.push_back(acked_write(0, 0, slot, addr, bytes, kTicks));
    };
    add(0x11F00000, le32(size));
    add(0x11F00004, le32(0));
    add(0x11F00008, le32(1));
    add(0x11F0000C, le32(size));
    add(0x11F00010, {0});
    add(0x18200000, {type_high, type_low});
    add(0x18200002, {0, 0, slot});
    for (size_t at = 0; at < image.size(); at += 1024) {
        const size_t end = std::min(at + 1024, image.size());
        add(0x18000000, Bytes(image.begin() + static_cast<ptrdiff_t>(at),
                              image.begin() + static_cast<ptrdiff_t>(end)));
    }
    return calls;
}

std::vector<CardCall> first(std::vector<CardCall> calls, size_t count) {
    calls.resize(count);
    return calls;
}

std::string opening(size_t firmware_size) {
    return "srcfile size is " + std::to_string(firmware_size) +
           " Bytes! \r\n file is *.bin! we will add 256B Head .\n ";
}

constexpr char kBegin[] = "temp file is deal over! begin open file! \r\n ";
constexpr char kEnd[] = "\nfile is close!";

class Update : public testing::Test {
protected:
    Update() {
        card_reset();
    }
    std::string file(const std::string &name, const Bytes &content) {
        return test::write_file(directory_.path(name), content);
    }
    std::string updated(const std::string &path, int16_t type = 0x0102, uint8_t slot = 3) {
        return test::output_of([&] { result_ = sys_update(path.c_str(), type, slot); });
    }

    FakeHome home_;
    test::TempDirectory directory_;
    int result_ = 1;
};

TEST_F(Update, SendsTheFieldsTheHeadAndTheFirmware) {
    const Bytes firmware = test::pattern(1025);
    EXPECT_EQ(updated(file("fw.bin", firmware)),
              opening(1025) + kBegin + kSuccess + "now sended 79%\b\b\b100%" + kEnd);
    EXPECT_EQ(result_, 0);
    EXPECT_EQ(card_calls(), transfer(image_of(firmware), 3, 0x01, 0x02));
    EXPECT_EQ(card_calls().size(), kFields + 2);
    EXPECT_EQ(card_calls()[7].len, 1024U);
    EXPECT_EQ(card_calls()[8].len, 257U);
}

TEST_F(Update, LeavesTheTemporaryFileAndReplacesIt) {
    const Bytes large = test::pattern(5000);
    const Bytes small = test::pattern(10);
    (void)updated(file("large.bin", large));
    EXPECT_EQ(test::read_file(home_.path(kImage)), image_of(large));
    EXPECT_EQ(shell_commands(),
              (std::vector<std::string>{"/bin/touch /home/updatebin.tmp", "sync"}));
    (void)updated(file("small.bin", small));
    EXPECT_EQ(test::read_file(home_.path(kImage)), image_of(small));
    EXPECT_EQ(shell_commands(),
              (std::vector<std::string>{"/bin/touch /home/updatebin.tmp", "sync",
                                        "/bin/rm -f  /home/updatebin.tmp",
                                        "/bin/touch /home/updatebin.tmp", "sync"}));
}

TEST_F(Update, RunsSyncWhenTheTemporaryFileIsWholeAndNothingIsSent) {
    const Bytes firmware = test::pattern(5000);
    Bytes found;
    size_t sent = 1;
    shell_calls([&](const std::string &command) {
        if (command == "sync") {
            found = test::read_file(home_.path(kImage));
            sent = card_calls().size();
        }
    });
    (void)updated(file("fw.bin", firmware));
    EXPECT_EQ(found, image_of(firmware));
    EXPECT_EQ(sent, 0U);
}

TEST_F(Update, SendsAnEmptyFirmwareAsItsHeadAlone) {
    EXPECT_EQ(updated(file("empty.bin", {})),
              opening(0) + kBegin + kSuccess + "now sended 100%" + kEnd);
    EXPECT_EQ(result_, 0);
    Bytes head(256);
    head[130] = 0x55;
    head[131] = 0x55;
    EXPECT_EQ(card_calls(), transfer(head, 3, 0x01, 0x02));
    EXPECT_EQ(card_calls().size(), kFields + 1);
}

TEST_F(Update, CutsTheImageIntoBlocksOf1024Bytes) {
    for (const size_t size : {767U, 768U, 769U, 1791U, 1792U, 1793U, 4095U, 4096U, 4097U, 20000U}) {
        card_reset();
        const Bytes firmware = test::pattern(size);
        (void)updated(file("fw.bin", firmware));
        EXPECT_EQ(result_, 0);
        EXPECT_EQ(card_calls(), transfer(image_of(firmware), 3, 0x01, 0x02)) << size;
    }
}

TEST_F(Update, LetsTheChecksumWrap) {
    (void)updated(file("fw.bin", Bytes(5000, 0xFF)));
    const Bytes image = test::read_file(home_.path(kImage));
    EXPECT_EQ(image[130] | image[131] << 8, (21845 + 5000 * 255) % 65536);
}

TEST_F(Update, OverwritesTheProgressInPlace) {
    // 105 blocks, so that one percent is sometimes shown twice and sometimes not at all.
    const Bytes firmware = test::pattern(105 * 1024 - 256);
    std::string progress;
    for (int block = 1; block <= 105; block++) {
        char number[16];
        (void)snprintf(number, sizeof number, "%2d%%", 100 * block / 105);
        progress += block == 1 ? "now sended " : "\b\b\b";
        progress += number;
    }
    EXPECT_EQ(progress.substr(0, 26), "now sended  0%\b\b\b 1%\b\b\b 2%");
    EXPECT_EQ(updated(file("fw.bin", firmware)),
              opening(firmware.size()) + kBegin + kSuccess + progress + kEnd);
}

TEST_F(Update, TellsOfAFileThatIsMissing) {
    EXPECT_EQ(updated(directory_.path("none.bin")),
              "firmware date in \"path_firm\" is not exist! \r\n ");
    EXPECT_EQ(result_, -1);
    EXPECT_TRUE(card_calls().empty());
    EXPECT_TRUE(shell_commands().empty());
}

TEST_F(Update, TakesDotBinAnywhereInThePath) {
    (void)std::filesystem::create_directory(directory_.path("fw.bin.d"));
    for (const char *name :
         {"fw.bin", "fw.BIN", "fw.Bin", "fw.bin.dat", "fw.BINARY", "fw.bin.d/fw.dat"}) {
        card_reset();
        (void)updated(file(name, {1, 2, 3}));
        EXPECT_EQ(result_, 0) << name;
        EXPECT_EQ(card_calls().size(), kFields + 1) << name;
    }
}

TEST_F(Update, RefusesOtherFilesWithSuccess) {
    struct Case {
        const char *name;
        const char *text;
    };
    constexpr char kEncrypted[] = "file is *.dat! we cann't decrypt it. stoped!\n ";
    constexpr char kUnknown[] = "stop! file is not *.dat or *.bin !\n ";
    for (const Case &c :
         {Case{"fw.dat", kEncrypted}, Case{"fw.Dat", kEncrypted}, Case{"fw.DAT", kEncrypted},
          Case{"fw.dat.txt", kEncrypted}, Case{"fw.txt", kUnknown}, Case{"fw.bIn", kUnknown},
          Case{"fw.dAt", kUnknown}, Case{"fwbin", kUnknown}}) {
        EXPECT_EQ(updated(file(c.name, {1, 2, 3})),
                  std::string("srcfile size is 3 Bytes! \r\n ").append(c.text));
        EXPECT_EQ(result_, 0) << c.name;
    }
    EXPECT_TRUE(card_calls().empty());
    EXPECT_TRUE(shell_commands().empty());
}

TEST_F(Update, StopsAtAFieldThatIsNotAcknowledged) {
    const Bytes firmware = test::pattern(100);
    const std::string path = file("fw.bin", firmware);
    const std::vector<CardCall> whole = transfer(image_of(firmware), 3, 0x01, 0x02);
    const char *const names[] = {
        "total_files_size", "files_recv_len", "total_files_count", "current_file_size", "v",
        "device_type",      "card_modelid"};
    for (size_t field = 0; field < kFields; field++) {
        for (const int status : {1, 0x7F, 0xFF}) {
            card_reset();
            card_answers_acked_writes([&](const CardCall &call) {
                return static_cast<uint8_t>(call.addr == whole[field].addr ? status : 0);
            });
            EXPECT_EQ(updated(path), opening(100) + "temp file is deal over! " + "send file_info." +
                                         names[field] + " err!");
            EXPECT_EQ(result_, -1);
            EXPECT_EQ(card_calls(), first(whole, field + 1));
        }
    }
}

TEST_F(Update, StopsAtABlockThatIsNotAcknowledged) {
    const Bytes firmware = test::pattern(4000); // 5 blocks
    const std::string path = file("fw.bin", firmware);
    const std::vector<CardCall> whole = transfer(image_of(firmware), 3, 0x01, 0x02);
    const char *const progress[] = {"", "now sended 24%", "now sended 24%\b\b\b48%",
                                    "now sended 24%\b\b\b48%\b\b\b72%",
                                    "now sended 24%\b\b\b48%\b\b\b72%\b\b\b96%"};
    struct Answer {
        uint8_t status;
        const char *text;
    };
    for (size_t block = 0; block < 5; block++) {
        for (const Answer &answer :
             {Answer{0x02, "err! ack = 0X02\r\n "}, Answer{0xFF, "err! ack = 0XFF\r\n "}}) {
            card_reset();
            size_t blocks = 0;
            card_answers_acked_writes([&](const CardCall &call) {
                const bool is_meant = call.addr == 0x18000000 && blocks++ == block;
                return is_meant ? answer.status : uint8_t{0};
            });
            EXPECT_EQ(updated(path),
                      opening(4000) + kBegin + kSuccess + progress[block] + answer.text + kEnd);
            EXPECT_EQ(result_, -1);
            EXPECT_EQ(card_calls(), first(whole, kFields + block + 1));
        }
    }
}

// --- files that fail
// ------------------------------------------------------------------------------

TEST_F(Update, GoesOnWithoutATemporaryFileAndFails) {
    (void)std::filesystem::create_directory(home_.path(kImage)); // "rm -f" leaves it
    const std::string path = file("fw.bin", {1, 2, 3});
    EXPECT_EQ(test::log_of([&] { result_ = sys_update(path.c_str(), 0x0102, 3); }),
              opening(3) + "|update: open '/home/updatebin.tmp': Is a directory\n" +
                  " file open failbegin open file! \r\n  file open fail" + kEnd);
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(card_calls().size(), kFields);
}

// An image of an older update is whole, so that a card would take it for the new one.
TEST_F(Update, NeverSendsAnOlderTemporaryFile) {
    const std::string path = file("fw.bin", {1, 2, 3});
    shell_calls([&](const std::string &command) {
        if (command.starts_with("/bin/touch")) {
            (void)std::filesystem::create_directory(home_.path(kImage)); // cannot be opened
        } else if (command == "sync") {
            (void)std::filesystem::remove(home_.path(kImage));
            (void)test::write_file(home_.path(kImage), image_of({9, 9, 9}));
        }
    });
    (void)updated(path);
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(card_calls().size(), kFields);
}

TEST_F(Update, GoesOnWithoutTheFirmwareAndFails) {
    const std::string path = directory_.path("fw.bin");
    (void)std::filesystem::create_directory(path);
    const std::string log = test::log_of([&] { (void)sys_update(path.c_str(), 0x0102, 3); });
    EXPECT_NE(log.find("|open '" + path + "': a pipe or a directory, not a file\n|update: open '" +
                       path + "': Invalid argument\n"),
              std::string::npos)
        << log;
    card_reset();
    const std::string output = updated(path);
    EXPECT_TRUE(
        output.ends_with(std::string(" file open failbegin open file! \r\n ") + kSuccess + kEnd))
        << output;
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(card_calls(), transfer({}, 3, 0x01, 0x02)); // no byte of data
    EXPECT_EQ(card_calls().size(), kFields);
}

TEST_F(Update, FailsWhenTheTemporaryFileIsGone) {
    shell_calls([&](const std::string &command) {
        if (command == "sync") {
            (void)std::filesystem::remove(home_.path(kImage));
        }
    });
    EXPECT_EQ(updated(file("fw.bin", {1, 2, 3})), opening(3) + kBegin + " file open fail" + kEnd);
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(card_calls(), transfer({}, 3, 0x01, 0x02));
}

TEST_F(Update, FailsWhenTheTemporaryFileIsCutShort) {
    const Bytes firmware = test::pattern(20000);
    card_answers_acked_writes([&](const CardCall &call) {
        if (call.addr == 0x18200002) {
            std::filesystem::resize_file(home_.path(kImage), 2000);
        }
        return uint8_t{0};
    });
    EXPECT_EQ(updated(file("fw.bin", firmware)), opening(20000) + kBegin + kSuccess +
                                                     "now sended  5%" +
                                                     "file read err\xEF\xBC\x81" + kEnd);
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(card_calls(), first(transfer(image_of(firmware), 3, 0x01, 0x02), kFields + 1));
}

// No file of this process grows beyond so many bytes while it lives; its output, which goes to a
// file too, has to fit.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : before_(signal(SIGXFSZ, SIG_IGN)) {
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited_), 0);
        const rlimit limited{.rlim_cur = bytes, .rlim_max = unlimited_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    }
    ~FileSizeLimit() {
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &unlimited_), 0);
        (void)signal(SIGXFSZ, before_);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

private:
    sighandler_t before_;
    rlimit unlimited_{};
};

constexpr char kNotWritten[] = "|ap_msg: write '/home/updatebin.tmp': File too large\n";

// A card must never get half a firmware, and half of one is not worth its room on the disk. The
// limits strike in the first write, on the way, and in the last one.
TEST_F(Update, SendsNothingWhenTheDiskIsFull) {
    const std::string path = file("fw.bin", test::pattern(20000));
    for (const rlim_t limit : {1000U, 8192U, 20255U}) {
        card_reset();
        const FileSizeLimit full_disk(limit);
        EXPECT_EQ(test::log_of([&] { result_ = sys_update(path.c_str(), 0x0102, 3); }),
                  opening(20000) + kNotWritten);
        EXPECT_EQ(result_, -1);
        EXPECT_TRUE(card_calls().empty());
        EXPECT_EQ(test::read_file(home_.path(kImage)), Bytes{}) << limit;
    }
    const FileSizeLimit enough(20256);
    (void)updated(path);
    EXPECT_EQ(result_, 0);
}

// Read to its end, an endless firmware would be called too large.
TEST_F(Update, StopsCopyingAtTheFirstFailedWrite) {
    const std::string path = directory_.path("fw.bin");
    std::filesystem::create_symlink("/dev/zero", path);
    const FileSizeLimit full_disk(8192);
    EXPECT_EQ(test::log_of([&] { result_ = sys_update(path.c_str(), 0x0102, 3); }),
              opening(0) + kNotWritten);
    EXPECT_EQ(result_, -1);
    EXPECT_TRUE(card_calls().empty());
}

// With a head in front it would have one byte more than 32 bits can count. Copied, it would meet
// the limit.
TEST_F(Update, RefusesATooLargeFirmwareBeforeItIsCopied) {
    const std::string path = file("fw.bin", {});
    std::filesystem::resize_file(path, 0xFFFFFF00); // takes no room
    const FileSizeLimit nothing_is_copied(1000);
    EXPECT_EQ(test::log_of([&] { result_ = sys_update(path.c_str(), 0x0102, 3); }),
              opening(0xFFFFFF00) + "|update: firmware of more than 4294967039 bytes\n");
    EXPECT_EQ(result_, -1);
    EXPECT_TRUE(card_calls().empty());
    EXPECT_EQ(test::read_file(home_.path(kImage)), Bytes{});
}

// The temporary file of an older update is removed before a new one is made in its place.
TEST_F(Update, TakesTheTemporaryFileUnderAnotherNameAsFirmware) {
    const Bytes firmware = test::pattern(300);
    (void)test::write_file(home_.path(kImage), firmware);
    const std::string path = directory_.path("fw.bin");
    std::filesystem::create_symlink(home_.path(kImage), path);
    (void)updated(path);
    EXPECT_EQ(result_, 0);
    EXPECT_EQ(card_calls(), transfer(image_of(firmware), 3, 0x01, 0x02));
}

TEST_F(Update, SendsNothingWhenTheFirmwareCannotBeRead) {
    const std::string path = directory_.path("fw.bin");
    std::filesystem::create_symlink("/proc/self/mem", path); // opens, but nothing lies at 0
    const std::string output = test::log_of([&] { result_ = sys_update(path.c_str(), 0x0102, 3); });
    EXPECT_TRUE(output.ends_with("|update: read firmware: Input/output error\n")) << output;
    EXPECT_EQ(result_, -1);
    EXPECT_TRUE(card_calls().empty());
    EXPECT_EQ(test::read_file(home_.path(kImage)), Bytes{});
}

TEST_F(Update, KeepsNoFileOpen) {
    const int before = test::open_descriptors();
    const std::string path = file("fw.bin", test::pattern(3000));
    (void)updated(path);
    card_answers_acked_writes([](const CardCall & /*call*/) { return uint8_t{1}; });
    (void)updated(path);
    EXPECT_EQ(test::open_descriptors(), before);
}

// --- entry points
// ---------------------------------------------------------------------------------

TEST_F(Update, FromTheCommandLineTakesTheLowBits) {
    const std::string path = file("fw.bin", {7});
    EXPECT_EQ(update_firmware(0x1FE, 0x1ABCD, path.c_str()), 0);
    EXPECT_EQ(card_calls(), transfer(image_of({7}), 0xFE, 0xAB, 0xCD));
    card_reset();
    EXPECT_EQ(update_firmware(-1, -2, path.c_str()), 0);
    EXPECT_EQ(card_calls(), transfer(image_of({7}), 0xFF, 0xFF, 0xFE));
    EXPECT_EQ(update_firmware(1, 1, directory_.path("none").c_str()), -1);
}

TEST_F(Update, FileSizesAreZeroWhenTheyCannotBeHad) {
    const std::string path = file("fw.bin", test::pattern(12345));
    const std::string none = directory_.path("none");
    EXPECT_EQ(get_file_size(path.c_str()), 12345);
    EXPECT_EQ(get_file_size(none.c_str()), 0);
    long size = -1;
    EXPECT_EQ(test::log_of([&] { size = get_file_size_old(path.c_str()); }), "");
    EXPECT_EQ(size, 12345);
    EXPECT_EQ(test::log_of([&] { size = get_file_size_old(none.c_str()); }),
              "|ERROR: Open file " + none + " failed.\n");
    EXPECT_EQ(size, 0);
}

TEST_F(Update, TemporaryFilesAreMadeAndRemovedByTheShell) {
    const std::string path = directory_.path("it's a file");
    const std::string quoted = "'" + directory_.path(R"(it'\''s a file)") + "'";
    EXPECT_EQ(update_temfile_creat(path.c_str()), 0);
    EXPECT_TRUE(test::exists(path));
    (void)test::write_file(path, {1});
    EXPECT_EQ(update_temfile_creat(path.c_str()), 0);
    EXPECT_EQ(get_file_size(path.c_str()), 0);
    EXPECT_TRUE(test::exists(path));
    EXPECT_EQ(update_temfile_del(path.c_str()), 0);
    EXPECT_FALSE(test::exists(path));
    EXPECT_EQ(shell_commands(),
              (std::vector<std::string>{"/bin/touch " + quoted, "/bin/rm -f  " + quoted,
                                        "/bin/touch " + quoted, "/bin/rm -f " + quoted}));
    EXPECT_NE(update_temfile_creat(directory_.path("none/file").c_str()), 0);
}

// --- repeated writes
// ------------------------------------------------------------------------------

struct Tries {
    int result;
    uint8_t ack;
    size_t calls;
    int64_t took_ms;
};

Tries try_times(int tries, std::vector<uint8_t> answers) {
    card_reset();
    size_t call = 0;
    card_answers_acked_writes([&](const CardCall & /*call*/) { return answers.at(call++); });
    const uint8_t data[] = {1, 2};
    Tries done{.result = 0, .ack = 0x55, .calls = 0, .took_ms = 0};
    const auto start = std::chrono::steady_clock::now();
    done.result = RawSockSendMsgWithAckWait_Try_nTimes(tries, 2, 0x71234, 0x305, 0x7040, 0x11, data,
                                                       2, &done.ack, 9);
    done.took_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now() - start)
                       .count();
    done.calls = card_calls().size();
    for (const CardCall &each : card_calls()) {
        EXPECT_EQ(each, acked_write(2, 0x1234, 5, 0x7040, {1, 2}, 9));
    }
    return done;
}

TEST(TryTimes, StopsAtTheFirstAcknowledgement) {
    for (const uint8_t ack : Bytes{0x00, 0x02, 0xFE}) {
        const Tries done = try_times(5, {ack});
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.ack, ack);
        EXPECT_EQ(done.calls, 1U);
    }
}

TEST(TryTimes, TriesAgainAfterTenMilliseconds) {
    const Tries done = try_times(5, {0xFF, 0xFF, 0x03});
    EXPECT_EQ(done.result, 0);
    EXPECT_EQ(done.ack, 0x03);
    EXPECT_EQ(done.calls, 3U);
    EXPECT_GE(done.took_ms, 20);
}

TEST(TryTimes, GivesUpWithTheLastResult) {
    const Tries done = try_times(3, {0xFF, 0xFF, 0xFF});
    EXPECT_EQ(done.result, -1);
    EXPECT_EQ(done.ack, 0xFF);
    EXPECT_EQ(done.calls, 3U);
}

TEST(TryTimes, BelowOneSendsNothing) {
    for (const int tries : {0, -1}) {
        const Tries done = try_times(tries, {});
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.ack, 0x55);
        EXPECT_EQ(done.calls, 0U);
    }
}

} // namespace
