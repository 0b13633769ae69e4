// Firmware files of any content, with every trouble on their way to the card.
//
// An input is a Story, field by field, and then the firmware. What has to reach the card, and what
// has to stay in the temporary file, is worked out here a second time.
#include "ap_msg/ap_msg.h"
#include "log/log.h"
#include "raw_msg/raw_msg.h"
#include "surroundings.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr std::string_view kNames[] = {"fuzz.bin",     "fuzz.BIN", "fuzz.Bin", "fuzz.dat",
                                       "fuzz.bin.dat", "fuzz.txt", "fuzz.bIn", "fuzz's.bin"};
constexpr size_t kNamesOfFirmware[] = {0, 1, 2, 4, 7};
constexpr std::string_view kImage = "/home/updatebin.tmp";

constexpr size_t kFields = 7;
constexpr size_t kHead = 256;
constexpr size_t kBlock = 1024;
constexpr uint32_t kDataRegister = 0x18000000;
constexpr uint8_t kNoAnswer = 0xFF;

enum Trouble : uint8_t {
    kNone,
    kMissing,    // there is no firmware
    kClosed,     // it cannot be opened
    kDirectory,  // it is one
    kTooLarge,   // it has a byte more than a head can say
    kUnreadable, // it can, but not read
    kNoImage,    // the temporary file cannot be opened
    kDiskFull,   // it cannot grow beyond so many bytes
    kCut,        // it is cut to so many bytes behind the last field
    kTroubles
};

struct Story {
    std::string_view name;
    uint8_t trouble;
    uint16_t bytes; // of kDiskFull and kCut
    uint8_t slot;
    uint16_t device_type;
    uint16_t refused; // which write the card refuses, counted from 1
    uint8_t status;   // with what
    bool is_request;  // comes as a request to the service
    uint8_t kind;     // of it
    uint8_t cut;      // how many bytes of its data it leaves out
    uint8_t tool;     // what the programming tool returns
    Bytes firmware;
};

struct Write {
    uint32_t addr;
    Bytes bytes;

    bool operator==(const Write &) const = default;
};

// What the run under test meets, and what it did.
Story g_story;
std::vector<Write> g_writes;
std::vector<std::string> g_commands;
Bytes g_reply;
int g_image = -1;    // the temporary file, to be opened anew
int g_firmware = -1; // the firmware, likewise

Story read_story(const uint8_t *data, size_t size) {
    Input head(data, size);
    Story story{};
    story.name = kNames[head.byte() % std::size(kNames)];
    story.trouble = head.byte() % kTroubles;
    story.bytes = head.word();
    story.slot = head.byte();
    story.device_type = head.word();
    story.refused = head.word();
    story.status = head.byte();
    story.is_request = head.byte() % 2 == 1;
    story.kind = head.byte();
    story.cut = head.byte();
    story.tool = head.byte();
    constexpr size_t kHeadSize = 14;
    story.firmware.assign(data + std::min(size, kHeadSize), data + size);
    return story;
}

// --- what has to come of it
// -------------------------------------------------------------------------

Bytes le(uint32_t value, size_t width) {
    Bytes bytes;
    for (size_t i = 0; i < width; i++) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    return bytes;
}

Bytes image_of(const Bytes &firmware) {
    Bytes image = le(static_cast<uint32_t>(firmware.size()), 4);
    image.resize(kHead);
    uint32_t sum = 0x5555;
    for (const uint8_t byte : firmware) {
        sum += byte;
    }
    image[130] = static_cast<uint8_t>(sum);
    image[131] = static_cast<uint8_t>(sum >> 8);
    image.insert(image.end(), firmware.begin(), firmware.end());
    return image;
}

std::vector<Write> transfer(const Story &story, const Bytes &image) {
    const Bytes size = le(static_cast<uint32_t>(image.size()), 4);
    const auto type_high = static_cast<uint8_t>(story.device_type >> 8);
    std::vector<Write> writes = {
        {0x11F00000, size},
        {0x11F00004, le(0, 4)},
        {0x11F00008, le(1, 4)},
        {0x11F0000C, size},
        {0x11F00010, {0}},
        {0x18200000, {type_high, static_cast<uint8_t>(story.device_type)}},
        {0x18200002, {0, 0, story.slot}},
    };
    for (size_t at = 0; at < image.size(); at += kBlock) {
        const auto begin = image.begin() + static_cast<ptrdiff_t>(at);
        const auto end =
            image.begin() + static_cast<ptrdiff_t>(std::min(at + kBlock, image.size()));
        writes.push_back({kDataRegister, Bytes(begin, end)});
    }
    return writes;
}

bool names_firmware(std::string_view name) {
    return std::any_of(std::begin(kNamesOfFirmware), std::end(kNamesOfFirmware),
                       [name](size_t i) { return name == kNames[i]; });
}

bool fits_the_disk(const Story &story, const Bytes &image) {
    return story.trouble != kDiskFull || image.size() <= story.bytes;
}

// Up to the write that the card refuses, if there are as many. Returns whether all got through.
bool end_at_the_refusal(const Story &story, std::vector<Write> &writes) {
    const bool is_refused =
        story.status != 0 && story.refused != 0 && story.refused <= writes.size();
    if (is_refused) {
        writes.resize(story.refused);
    }
    return !is_refused;
}

void check_sent(const std::vector<Write> &expected, int result, int expected_result) {
    require(g_writes == expected, "the card gets the fields, the head and the firmware");
    require(result == expected_result, "the result says whether it got everything");
}

Bytes content_of_image() {
    struct stat status {};
    require(fstat(g_image, &status) == 0, "the temporary file has a size");
    Bytes content(static_cast<size_t>(status.st_size));
    require(pread(g_image, content.data(), content.size(), 0) == status.st_size,
            "the temporary file can be read");
    return content;
}

void check_transfer(const Story &story, int result) {
    const Bytes image = image_of(story.firmware);
    if (story.trouble == kClosed || story.trouble == kDirectory || story.trouble == kNoImage) {
        std::vector<Write> fields = transfer(story, {});
        (void)end_at_the_refusal(story, fields);
        check_sent(fields, result, -1);
        return;
    }
    if (story.trouble == kUnreadable || story.trouble == kTooLarge ||
        !fits_the_disk(story, image)) {
        check_sent({}, result, -1);
        require(content_of_image().empty(), "no part of a firmware stays in the temporary file");
        return;
    }
    std::vector<Write> writes = transfer(story, image);
    const bool is_cut = story.trouble == kCut && story.bytes < image.size();
    if (is_cut) {
        writes.resize(kFields + story.bytes / kBlock); // whole blocks alone
    }
    const bool all_through = end_at_the_refusal(story, writes);
    check_sent(writes, result, all_through && !is_cut ? 0 : -1);
    require(is_cut || content_of_image() == image, "the temporary file holds what was sent");
}

void check_update(const Story &story, std::string_view name, int result) {
    if (name != story.name || story.trouble == kMissing) {
        check_sent({}, result, -1);
    } else if (!names_firmware(name)) {
        check_sent({}, result, 0);
    } else {
        check_transfer(story, result);
    }
}

// --- the run
// ----------------------------------------------------------------------------------------

// While it lives, no file grows beyond the story's size.
class FullDisk {
public:
    explicit FullDisk(const Story &story) {
        require(getrlimit(RLIMIT_FSIZE, &unlimited_) == 0, "the limit of files can be had");
        if (story.trouble == kDiskFull || story.trouble == kTooLarge) {
            const rlim_t bytes = story.trouble == kDiskFull ? story.bytes : 0; // nothing is copied
            const rlimit limited{.rlim_cur = bytes, .rlim_max = unlimited_.rlim_max};
            require(setrlimit(RLIMIT_FSIZE, &limited) == 0, "the limit of files can be set");
        }
    }
    ~FullDisk() {
        (void)setrlimit(RLIMIT_FSIZE, &unlimited_); // as it was
    }
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;

private:
    rlimit unlimited_{};
};

int run_alone(const Story &story) {
    const FullDisk disk(story);
    constexpr int kIgnoredBits = 0x70000; // above those of slot and device type
    return update_firmware(story.slot | kIgnoredBits, story.device_type | kIgnoredBits,
                           std::string(story.name).c_str());
}

constexpr size_t kRequestHead = 14;
constexpr size_t kHeads = 38;
constexpr size_t kHeader = 40;
constexpr size_t kKindSize = 4;

// The message of docs/service.md; nothing ends its name.
Bytes message_of(const Story &story) {
    Bytes data = le(story.kind, kKindSize);
    data.insert(data.end(), story.name.begin(), story.name.end());
    data.resize(data.size() - story.cut % (data.size() + 1));
    Bytes message = le(0x040A5500, 4);
    message.resize(16);
    message.insert(message.end(), {0, 0, 28, 0, 0, 0, 0, 0, 0x55, 0xFE, 0xEF, story.slot});
    for (const Bytes &part : {le(story.device_type, 2), le(0x0605, 2), le(0, 4),
                              le(static_cast<uint32_t>(data.size()), 2), data}) {
        message.insert(message.end(), part.begin(), part.end());
    }
    return message;
}

void check_reply(uint32_t kind, const Bytes &message, int result) {
    Bytes expected(message.begin(), message.begin() + kHeads);
    const auto put = [&expected](size_t at, const Bytes &bytes) {
        std::copy(bytes.begin(), bytes.end(), expected.begin() + static_cast<ptrdiff_t>(at));
    };
    put(0, le(0x000A3B00, 4));
    put(8, le(0, 4));
    put(12, le(static_cast<uint32_t>(result), 4));
    expected[24] = 0x3B;
    for (const Bytes &field : {le(kind, kKindSize), le(0, 2)}) {
        expected.insert(expected.end(), field.begin(), field.end());
    }
    require(g_reply == expected, "the requester gets the result");
}

std::string tool_line(uint8_t kind, std::string_view name) {
    const char *card = kind == 0x16 ? "input " : kind == 0x17 ? "output " : "vpu    ";
    const bool has_quote = name.find('\'') != std::string_view::npos;
    return std::string("/usr/telva/bin/mcu_isp -B ") + card + " -C 0x31 -b " +
           (has_quote ? R"('fuzz'\''s.bin')" : std::string(name)) +
           (kind == 0x18 ? " -r 0x00 " : " ");
}

void check_carried_out(const Story &story, std::string_view name, int result) {
    const bool is_found = name == story.name && story.trouble != kMissing;
    if (is_found && story.kind >= 0x16 && story.kind <= 0x18) {
        require(result == story.tool && g_writes.empty() &&
                    g_commands == std::vector{tool_line(story.kind, name)},
                "the programming tool gets the file");
    } else if (is_found && (story.kind < 0x19 || story.kind > 0x1E)) {
        check_sent({}, result, 0);
    } else {
        check_update(story, name, result);
    }
}

void check_request(const Story &story) {
    const Bytes message = message_of(story);
    Bytes request(message.begin() + (kHeads - kRequestHead), message.end()); // exactly as long
    Bytes head = message; // as the hand-over keeps it
    head.resize(kHeader);
    int result = 0;
    {
        const FullDisk disk(story);
        result = update_file_handle(head.data(), request.data());
    }
    if (message.size() < kHeads + kKindSize) {
        check_reply(0, message, result);
        check_sent({}, result, -1);
        return;
    }
    check_reply(story.kind, message, result);
    const std::string name(message.begin() + kHeads + kKindSize, message.end());
    check_carried_out(story, name, result);
}

// Log lines and progress are made, for the sake of their arguments, and go nowhere.
bool prepare() {
    require(freopen("/dev/null", "w", stdout) != nullptr, "there is a place for the output");
    log_debug = 1;
    (void)signal(SIGXFSZ, SIG_IGN); // a full disk is an error, not an end
    g_firmware = memfd_create("firmware", MFD_CLOEXEC);
    g_image = memfd_create("image", MFD_CLOEXEC);
    require(g_firmware >= 0 && g_image >= 0, "there is memory for the files");
    return true;
}

int lowest_free_descriptor() {
    const int fd = dup(STDERR_FILENO);
    require(fd >= 0 && close(fd) == 0, "there are descriptors");
    return fd;
}

// --- what the code under test meets in the system's place
// -------------------------------------------

bool is_image(std::string_view name) {
    return name == kImage;
}

// The firmware of the story, or the name that a request has cut.
bool is_firmware(std::string_view name) {
    return name.size() <= g_story.name.size() && g_story.name.starts_with(name);
}

bool is_there(std::string_view name) {
    return is_image(name) ? g_story.trouble != kNoImage
                          : name == g_story.name && g_story.trouble != kMissing;
}

int refuse(int error) {
    errno = error;
    return -1;
}

// Empties a file in memory and puts bytes into it.
void fill(int fd, const Bytes &bytes) {
    require(ftruncate(fd, 0) == 0 &&
                pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "there is memory for the files");
}

void begin(const Story &story) {
    g_story = story;
    g_writes.clear();
    g_commands.clear();
    g_reply.clear();
    fill(g_firmware, story.firmware);
    constexpr off_t kOneByteTooMany = 0xFFFFFF00;
    require(story.trouble != kTooLarge || ftruncate(g_firmware, kOneByteTooMany) == 0,
            "a file may have holes");
    fill(g_image, Bytes(300, 0x99)); // of an older update
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int __real_access(const char *name, int mode);
int __wrap_access(const char *name, int mode);
int __real_stat(const char *name, struct stat *status);
int __wrap_stat(const char *name, struct stat *status);
int __real_open(const char *name, int flags, ...);
int __wrap_open(const char *name, int flags, ...);
int __wrap_my_system(const char *command);
int __wrap_apcard_bit_self(void);
int __wrap_apipc_send(int aptid, void *msg, unsigned length);
int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                     int32_t ticks);

int __wrap_access(const char *name, int mode) {
    if (!is_image(name) && !is_firmware(name)) {
        return __real_access(name, mode);
    }
    return is_there(name) ? 0 : refuse(ENOENT);
}

int __wrap_stat(const char *name, struct stat *status) {
    if (!is_image(name) && !is_firmware(name)) {
        return __real_stat(name, status);
    }
    return is_there(name) ? fstat(is_image(name) ? g_image : g_firmware, status) : refuse(ENOENT);
}

int __wrap_open(const char *name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    if (!is_image(name) && !is_firmware(name)) {
        return __real_open(name, flags, mode);
    }
    if (!is_there(name) || (is_firmware(name) && g_story.trouble == kClosed)) {
        return refuse(is_there(name) ? EACCES : ENOENT);
    }
    if (is_firmware(name) && g_story.trouble == kDirectory) {
        return __real_open("/", flags);
    }
    if (is_firmware(name) && g_story.trouble == kUnreadable) {
        return __real_open("/proc/self/mem", flags); // nothing lies at 0
    }
    char place[32];
    (void)snprintf(place, sizeof place, "/proc/self/fd/%d", is_image(name) ? g_image : g_firmware);
    return __real_open(place, flags & ~O_CREAT);
}

int __wrap_my_system(const char *command) {
    g_commands.emplace_back(command);
    return g_commands.back().starts_with("/usr/") ? g_story.tool : 0;
}

int __wrap_apcard_bit_self(void) {
    return 0;
}

int __wrap_apipc_send(int aptid, void *msg, unsigned length) {
    require(aptid == 0x040A5500 && g_reply.empty(), "one reply goes to the requester");
    const auto *bytes = static_cast<const uint8_t *>(msg);
    g_reply.assign(bytes, bytes + length);
    return 0;
}

int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                     int32_t ticks) {
    require(index == 0 && model == 0 && slot == g_story.slot && code == 0x11 && ticks == 30,
            "every write is acknowledged and goes to the card");
    g_writes.push_back({addr, Bytes(data, data + len)});
    if (g_story.trouble == kCut && g_writes.size() == kFields &&
        static_cast<size_t>(g_story.bytes) < kHead + g_story.firmware.size()) {
        require(ftruncate(g_image, g_story.bytes) == 0, "the temporary file can be cut");
    }
    *ack = g_writes.size() == g_story.refused ? g_story.status : 0;
    return *ack == kNoAnswer ? -1 : 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool is_prepared = prepare();
    require(is_prepared, "there is a place for the output");
    const Story story = read_story(data, size);
    begin(story);
    const int free_before = lowest_free_descriptor();
    if (story.is_request) {
        check_request(story);
    } else {
        check_update(story, story.name, run_alone(story));
    }
    require(lowest_free_descriptor() == free_before, "every file is closed");
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
