// bed.h - what the system tests share: processes, the simulated card, a capture of the wire.
//
// The tests run in the board's namespace of scripts/testbed; the main function in bed.cpp refuses
// to run them anywhere else. Frames are built and taken apart here with offsets of this file's own,
// so that a mistake in the product's layout cannot hide.
#ifndef TESTS_SYSTEM_BED_BED_H
#define TESTS_SYSTEM_BED_BED_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bed {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Words = std::vector<std::string>;
using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds kHang = 120s; // whatever takes so long never ends

// --- processes ----------------------------------------------------------------------------------

struct Launch {
    Words argv;                          // argv[0] is the name that the program sees
    std::string program = {};            // the file to run; empty: argv[0]
    std::function<void()> in_child = {}; // just before the program starts
};

/** A running program, its outputs collected. Killed and reaped with its owner. */
class Process {
public:
    explicit Process(const Launch &launch);
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process();

    [[nodiscard]] int pid() const;
    void send(int signo) const;
    /** Its exit status, or 1000 + n when signal n ended it; nothing when it still runs. */
    std::optional<int> wait(Milliseconds at_most = kHang);
    /** Wait until standard output holds a text; false when it ended or took too long. */
    bool await_output(std::string_view text);
    [[nodiscard]] std::string out() const;
    [[nodiscard]] std::string err() const;

private:
    std::string name_;
    int pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    std::optional<int> status_;
};

struct Finished {
    int status; // -1: it had to be killed
    std::string out;
    std::string err;
    Milliseconds duration;
};

/** Runs a program to its end. */
Finished run(const Launch &launch);

/** Runs the tool with these arguments; the prefix is a program that starts it. */
Finished ruk(const Words &arguments, const Words &prefix = {});
Words ruk_command(const Words &arguments, const Words &prefix = {});

/** Takes eth0 down; the cable works again when its owner is gone. */
class LinkDown {
public:
    LinkDown();
    LinkDown(const LinkDown &) = delete;
    LinkDown &operator=(const LinkDown &) = delete;
    ~LinkDown();
};

/** How often a text stands in another, and how often a line was logged. */
int count(std::string_view text, std::string_view wanted);
int logged(const Finished &run, const std::string &message);

// --- the card -----------------------------------------------------------------------------------

struct Counters {
    std::string json;
    /** Fails the test when there is no such counter. */
    int64_t operator[](const std::string &name) const;
};

Words card_command(const Words &options);

/** ruk-card on card0, and on others among the options; ready when the constructor returns. */
class Card {
public:
    enum class Priority { kNormal, kRealTime };
    explicit Card(const Words &options = {}, Priority priority = Priority::kNormal);
    /** End it; fails the test when the kernel lost frames before the card saw them. */
    Counters stop();
    /** End it under a load that no card need keep up with: what the kernel lost is counted only. */
    Counters stop_overloaded();

private:
    Process process_;
};

/** A raw socket on the card's end of a cable, for frames that no card would send. */
class CardEnd {
public:
    CardEnd();
    CardEnd(const CardEnd &) = delete;
    CardEnd &operator=(const CardEnd &) = delete;
    ~CardEnd();
    void send(const Bytes &frame) const;

private:
    int fd_ = -1;
};

// --- the wire -----------------------------------------------------------------------------------

struct Request {
    uint16_t model = 0;
    uint8_t slot = 0;
    uint16_t seq = 0;
    uint8_t code = 0;
    uint32_t addr = 0;
    uint16_t len = 0;
};

constexpr uint8_t kRead = 0x00;
constexpr uint8_t kWrite = 0x01;
constexpr uint8_t kWriteAck = 0x11;

/** The frame that a request must be on the wire, byte by byte. */
Bytes request_frame(const Request &request, const Bytes &data = {});
/** A write of these data. */
Bytes write_frame(uint8_t code, uint16_t seq, uint32_t addr, const Bytes &data);

/** Every frame on the board's eth0 since it was made. */
class Capture {
public:
    Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    ~Capture();
    /** What the board sent, whatever it is. */
    const std::vector<Bytes> &sent();
    /** Wait until the board has sent so many; false when that takes too long. */
    bool await_sent(size_t count);
    /** What the board was sent. */
    const std::vector<Bytes> &received();

private:
    void drain();

    int fd_ = -1;
    std::vector<Bytes> sent_;
    std::vector<Bytes> received_;
};

std::string hex(const Bytes &bytes);
Bytes from_hex(std::string_view text);

// --- data ---------------------------------------------------------------------------------------

/** A directory of the test's own, gone with its owner. */
class Directory {
public:
    Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;
    ~Directory();
    [[nodiscard]] std::string path(const std::string &name) const;
    /** Write a file; returns its path. */
    [[nodiscard]] std::string file(const std::string &name, const Bytes &content) const;

private:
    std::string path_;
};

Bytes content_of(const std::string &path);
/** Bytes that differ from place to place, also between pieces of 1400. */
Bytes pattern(size_t size);
/** A part of bytes. */
Bytes part(const Bytes &bytes, size_t offset, size_t size);
/** The dump that data read from an address must give. */
std::string dump(uint32_t addr, const Bytes &data);

/** The tests' fixture: keeps all output and frames of a failed test in a file. */
class SystemTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

} // namespace bed

#endif
