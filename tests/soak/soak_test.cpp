// Everything at once, for as long as RUK_SOAK_MINUTES says: a host on three links with faulty
// cards, two of which go down and up; the request service with four clients, pictures and firmware;
// block transfers by a third process. Whatever fails has to be explained by the faults that the
// cards counted, no byte may be wrong, and neither memory nor descriptors may grow.
#include "region.h"

#include "tests/system/bed/service.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sched.h>
#include <sstream>
#include <unistd.h>

namespace bed {

namespace {

using soak::Random;
using soak::Region;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kServiceAddr = 0x20000000; // of the first client
constexpr uint32_t kRegions = 64;             // of a client
constexpr uint32_t kBlockAddr = 0x30000000;
constexpr size_t kBlockPieces = 12;
constexpr size_t kBlockPiece = 8000;
constexpr uint32_t kWidth = 320; // its lines fill whole bursts
constexpr uint32_t kHeight = 100;
constexpr size_t kPicture = size_t{kWidth} * kHeight * 4;
constexpr size_t kFrame = 1400;
constexpr size_t kChunk = 15360;
constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr Milliseconds kReply = 60s;
constexpr long kGrowth = 1024; // KiB that a process may take more: the heap of a thread breathes

const char *const kLinkFaults[] = {
    // Plain writes of registers and pictures go over the first link, and nobody tells their loss.
    "",
    "--drop-requests 1",
    "--drop-requests 1",
};

long number_of(const char *variable, long otherwise) {
    const char *text = getenv(variable);
    return text != nullptr ? strtol(text, nullptr, 10) : otherwise;
}

void be_silent() {
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)dup2(nothing, STDERR_FILENO);
}

void be_all_silent() {
    be_silent();
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)dup2(nothing, STDOUT_FILENO);
}

long resident_kib(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with("VmRSS:")) {
            return strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// The fewest of several looks: the host asks for the state of a link through sockets of a moment.
long descriptors(int pid) {
    long fewest = std::numeric_limits<long>::max();
    for (int i = 0; i < 50; i++) {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
        fewest = std::min<long>(fewest, std::distance(begin(all), end(all)));
        std::this_thread::sleep_for(10ms);
    }
    return fewest;
}

// A process that must not grow.
struct Watched {
    const char *name;
    const Process &process;
    long kib = 0;
    long fds = descriptors(process.pid());

    void note_memory() {
        kib = resident_kib(process.pid());
    }
    void expect_no_more_memory() const {
        const long now = resident_kib(process.pid());
        printf("%s: %ld KiB, %ld KiB at the end; %ld descriptors\n", name, kib, now, fds);
        EXPECT_LE(now, kib + kGrowth) << name;
    }
    void expect_no_more_descriptors() const {
        EXPECT_EQ(descriptors(process.pid()), fds) << name;
    }
};

struct Tally {
    std::atomic<int64_t> requests{0};
    std::atomic<int64_t> failures{0}; // each takes a fault of the first card
    std::atomic<int64_t> pictures_read{0};
    std::atomic<int64_t> black_blocks{0};
    std::atomic<int64_t> pictures_written{0};
    std::atomic<int64_t> updates{0};
    std::atomic<int64_t> failed_updates{0};
    std::atomic<int64_t> blocks{0};
    std::atomic<int64_t> failed_blocks{0};
};

class Soak : public SystemTest {
protected:
    [[nodiscard]] bool goes_on() const {
        return Clock::now() < end_ && !HasFailure();
    }

    Process card(int index) const {
        Words words =
            card_command({"--drop", "1", "--corrupt", "0.5", "--duplicate", "1", "--seed",
                          std::to_string(seed_ + index), "--error", "21@70000000-7fffffff"});
        words.pop_back();
        std::istringstream more(kLinkFaults[index]);
        for (std::string word; more >> word;) {
            words.push_back(word);
        }
        words.push_back("card" + std::to_string(index));
        return Process({.argv = words});
    }

    // --- requests --------------------------------------------------------------------------------

    Message ask(const Client &client, Message message) {
        tally_.requests += 1;
        EXPECT_TRUE(client.send(std::move(message)));
        const Bytes reply = client.receive(kReply);
        EXPECT_GE(reply.size(), kMessageHead) << "no reply within " << kReply.count() << " ms";
        return reply.size() < kMessageHead ? Message{.result = kFailed} : from_bytes(reply);
    }

    void serve_registers(uint8_t number) {
        const Client client(sockets_, static_cast<uint8_t>(0x50 + number));
        Random random(static_cast<uint32_t>(seed_) + number);
        std::vector<Region> regions;
        for (uint32_t i = 0; i < kRegions; i++) {
            regions.emplace_back(kServiceAddr + (uint32_t{number} << 20) + (i << 12),
                                 i % 4 == 0 ? kFrame : 1 + random.below(200));
        }
        while (goes_on()) {
            Region &region = regions[random.below(kRegions)];
            switch (random.below(8)) {
            case 0:
                expect_greeting(client);
                break;
            case 1:
            case 2:
                write(client, region);
                break;
            case 3:
            case 4:
                write_with_ack(client, region);
                break;
            default:
                read(client, region);
            }
            std::this_thread::sleep_for(1ms);
        }
    }

    void write(const Client &client, Region &region) {
        tally_.requests += 1;
        EXPECT_TRUE(client.send(register_message(0x01, region, region.next_content())));
    }

    void write_with_ack(const Client &client, Region &region) {
        if (ask(client, register_message(0x02, region, region.next_content())).result == 0) {
            region.confirm();
        } else {
            tally_.failures += 1;
        }
    }

    void read(const Client &client, Region &region) {
        const Message reply = ask(client, register_message(0x00, region, {}));
        if (reply.result == kFailed) {
            tally_.failures += 1;
        } else {
            EXPECT_EQ(reply.data_len, region.len());
            EXPECT_TRUE(
                region.take(part(reply.data, 0, std::min<size_t>(reply.data.size(), region.len()))))
                << "wrong bytes: 0x" << std::hex << region.addr();
        }
    }

    static Message register_message(uint8_t code, const Region &region, const Bytes &data) {
        return {.code = code,
                .slot = 3,
                .model = 1,
                .addr = region.addr(),
                .len = static_cast<uint16_t>(region.len()),
                .data = data};
    }

    // --- pictures and firmware -------------------------------------------------------------------

    // The service keeps only the latest file request that its file thread has not taken yet: the
    // next one waits until the card has the picture.
    void serve_files(const Process &card) {
        const Client client(sockets_, 0x58);
        const std::string pixels = directory_.file("pixels", pattern(size_t{64} * 50 * 3));
        const std::string firmware = directory_.file("fw.bin", pattern(3000));
        Region memory(0, kPicture);
        while (goes_on()) {
            const Bytes picture = memory.next_content();
            load_picture(client, picture);
            get_picture(client, picture);
            send_file_request(client, 0xEE, {64, 0, 0, 0, 50, 0, 0, 0}, pixels);
            tally_.pictures_written += 1;
            ASSERT_TRUE(await_pictures(card, tally_.pictures_written)) << "a picture is lost";
            send_file_request(client, 0xEF, {0x19, 0, 0, 0}, firmware);
            const Bytes reply = client.receive(kReply);
            ASSERT_GE(reply.size(), kMessageHead) << "no reply to an update";
            (from_bytes(reply).result == 0 ? tally_.updates : tally_.failed_updates) += 1;
        }
    }

    static bool await_pictures(const Process &card, int64_t wanted) {
        const auto give_up = Clock::now() + kReply;
        while (count(card.out(), "picture port: ") < wanted) {
            if (Clock::now() > give_up) {
                return false;
            }
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }

    static void send_file_request(const Client &client, uint8_t code, Bytes data,
                                  const std::string &name) {
        data.insert(data.end(), name.begin(), name.end());
        data.push_back(0);
        EXPECT_TRUE(client.send({.code = code,
                                 .slot = 3,
                                 .model = 0x0102,
                                 .len = static_cast<uint16_t>(data.size()),
                                 .data = data}));
    }

    // As the cards take it: chunks to the data register, each moved to its place behind it.
    void load_picture(const Client &client, const Bytes &picture) {
        const auto plain = [&](uint32_t addr, const Bytes &data) {
            EXPECT_TRUE(client.send({.code = 0x01,
                                     .slot = 3,
                                     .model = 1,
                                     .addr = addr,
                                     .len = static_cast<uint16_t>(data.size()),
                                     .data = data}));
        };
        for (size_t chunk = 0; chunk < picture.size(); chunk += kChunk) {
            const size_t size = std::min(kChunk, picture.size() - chunk);
            for (size_t at = 0; at < size; at += kFrame) {
                plain(0xB0000 + static_cast<uint32_t>(at),
                      part(picture, chunk + at, std::min(kFrame, size - at)));
            }
            const auto addr = static_cast<uint32_t>(chunk / 8);
            plain(0xA0001,
                  {static_cast<uint8_t>(addr), static_cast<uint8_t>(addr >> 8),
                   static_cast<uint8_t>(addr >> 16), 0, static_cast<uint8_t>(size / 64), 0, 1});
        }
        expect_greeting(client);
    }

    void get_picture(const Client &client, const Bytes &picture) {
        const std::string out = directory_.path("out");
        std::filesystem::remove(out);
        std::filesystem::remove(out + ".bmp");
        send_file_request(client, 0xDD,
                          {static_cast<uint8_t>(kWidth), static_cast<uint8_t>(kWidth >> 8), 0, 0,
                           static_cast<uint8_t>(kHeight), 0, 0, 0},
                          out);
        ASSERT_TRUE(await_size(out + ".bmp", kPicture + 54)) << "the picture does not come";
        tally_.pictures_read += 1;
        const Bytes got = content_of(out);
        ASSERT_EQ(got.size(), kPicture);
        for (size_t at = 0; at < kPicture; at += kFrame) {
            const size_t size = std::min(kFrame, kPicture - at);
            const Bytes block = part(got, at, size);
            if (block == Bytes(size)) {
                tally_.black_blocks += 1;
            } else {
                EXPECT_TRUE(block == part(picture, at, size)) << "wrong bytes in a picture, " << at;
            }
        }
        Bytes turned(kPicture);
        for (size_t i = 0; i < kPicture; i++) {
            const size_t line = i / (kWidth * 4);
            turned[(kHeight - 1 - line) * kWidth * 4 + i % (kWidth * 4) / 4 * 4 + 3 - i % 4] =
                got[i];
        }
        EXPECT_TRUE(part(content_of(out + ".bmp"), 54, kPicture) == turned) << "the BMP differs";
    }

    static bool await_size(const std::string &name, size_t wanted) {
        const auto give_up = Clock::now() + 2 * kReply;
        std::error_code not_there_yet;
        while (std::filesystem::file_size(name, not_there_yet) != wanted || not_there_yet) {
            if (Clock::now() > give_up) {
                return false;
            }
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }

    // --- blocks ----------------------------------------------------------------------------------

    // Requests of the third link get lost, and it goes down: each piece is as before, or new.
    void move_blocks() {
        std::vector<Region> pieces;
        for (uint32_t i = 0; i < kBlockPieces; i++) {
            pieces.emplace_back(kBlockAddr + i * kBlockPiece, kBlockPiece);
        }
        const std::string to = directory_.path("block");
        while (goes_on()) {
            Bytes block;
            for (Region &piece : pieces) {
                const Bytes content = piece.next_content();
                block.insert(block.end(), content.begin(), content.end());
            }
            const std::string from = directory_.file("block_to_write", block);
            Process mover(
                {.argv = {BUS_BLOCK_HOST, "link", "2", "timeout", "20", "write", "30000000", from,
                          "read", "30000000", std::to_string(block.size()), to}});
            const auto status = mover.wait();
            ASSERT_TRUE(status.has_value()) << "a block transfer does not end";
            if (status != 0 || count(mover.out(), "read_process_func() failed.") > 0) {
                tally_.failed_blocks += 1;
            } else {
                tally_.blocks += 1;
                expect_pieces(pieces, content_of(to));
            }
            std::this_thread::sleep_for(300ms);
        }
    }

    static void expect_pieces(std::vector<Region> &pieces, const Bytes &got) {
        ASSERT_EQ(got.size(), kBlockPieces * kBlockPiece);
        for (size_t i = 0; i < pieces.size(); i++) {
            EXPECT_TRUE(pieces[i].take(part(got, i * kBlockPiece, kBlockPiece)))
                << "wrong bytes in a block, piece " << i;
        }
    }

    // --- the end ---------------------------------------------------------------------------------

    static int64_t faults(const Counters &card) {
        return card["drop"] + card["corrupt"] + card["drop_request"] + card["kernel_drops"];
    }

    // Every failure took a fault; a request that is sent again, three.
    void expect_explained(int index, const Counters &host, const Counters &card) const {
        const std::string link = "link" + std::to_string(index) + "_";
        int64_t taken = host[link + "failures"] + 3 * host[link + "unanswered_reads"];
        if (index == 0) {
            taken += tally_.failures + tally_.black_blocks + tally_.failed_updates;
        }
        printf("link %d: %lld calls, %lld failed for %lld faults, %lld while it was down; "
               "%lld refused\n",
               index, static_cast<long long>(host[link + "calls"]), static_cast<long long>(taken),
               static_cast<long long>(faults(card)),
               static_cast<long long>(host[link + "disturbed"]),
               static_cast<long long>(host[link + "refusals"]));
        EXPECT_LE(taken, faults(card) + host[link + "kernel_drops"]) << card.json;
        EXPECT_GT(host[link + "calls"], 10) << host.json;
        EXPECT_GT(faults(card), 0) << card.json;
        EXPECT_EQ(card["bad_frames"], 0) << card.json;
    }

    void print_tally() const {
        printf("service: %lld requests, %lld failed; %lld pictures read, %lld black blocks, %lld "
               "written; %lld updates, %lld failed\nblocks: %lld of 96000 bytes, %lld failed\n",
               static_cast<long long>(tally_.requests), static_cast<long long>(tally_.failures),
               static_cast<long long>(tally_.pictures_read),
               static_cast<long long>(tally_.black_blocks),
               static_cast<long long>(tally_.pictures_written),
               static_cast<long long>(tally_.updates),
               static_cast<long long>(tally_.failed_updates), static_cast<long long>(tally_.blocks),
               static_cast<long long>(tally_.failed_blocks));
    }

    void expect_pictures_and_firmware(const Counters &card) const {
        EXPECT_EQ(card["port_complete"], tally_.pictures_written) << card.json;
        EXPECT_GE(card["firmware_intact"], tally_.updates) << card.json;
        EXPECT_EQ(card["firmware_damaged"], 0) << card.json;
        EXPECT_EQ(card["ddr2_short_chunks"], 0) << card.json;
        EXPECT_GT(tally_.pictures_read, 0);
        EXPECT_GT(tally_.updates, 0);
        EXPECT_GT(tally_.blocks, 0);
    }

    long seconds_ = 60 * number_of("RUK_SOAK_MINUTES", 1);
    int seed_ = static_cast<int>(number_of("RUK_SOAK_SEED", 1));
    Clock::time_point end_ = Clock::now() + std::chrono::seconds(seconds_);
    Directory directory_;
    std::string sockets_ = directory_.path("m");
    Tally tally_;
};

TEST_F(Soak, EverythingAtOnceGoesOn) {
    ASSERT_EQ(unshare(CLONE_NEWIPC), 0); // the semaphore's key is one for the whole machine
    Process cards[] = {card(0), card(1), card(2)};
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(cards[i].await_output("card" + std::to_string(i) + "\n")) << cards[i].err();
    }
    Launch launch = rukd_command(sockets_);
    launch.in_child = [before = launch.in_child] {
        before();
        be_all_silent(); // its log of an hour would fill the memory
    };
    Process rukd(launch);
    Process host({.argv = {SOAK_HOST, std::to_string(seconds_ + 5), std::to_string(seed_)},
                  .in_child = be_silent});
    ASSERT_TRUE(host.await_output("soaking")) << host.out();
    ASSERT_EQ(rukd.wait(1s), std::nullopt);
    Watched watched_rukd{"rukd", rukd}; // before it has anything to do
    Watched watched_host{"host", host};
    std::vector<std::thread> threads;
    for (uint8_t number = 0; number < 3; number++) {
        threads.emplace_back([this, number] { serve_registers(number); });
    }
    threads.emplace_back([this, &card = cards[0]] { serve_files(card); });
    threads.emplace_back([this] { move_blocks(); });

    std::this_thread::sleep_for(std::chrono::seconds(std::min(60L, seconds_ / 2)));
    watched_rukd.note_memory();
    watched_host.note_memory();
    while (goes_on() && !host.wait(0ms)) {
        std::this_thread::sleep_for(200ms);
    }
    watched_rukd.expect_no_more_memory();
    watched_host.expect_no_more_memory();
    watched_host.expect_no_more_descriptors();
    for (std::thread &thread : threads) {
        thread.join();
    }
    watched_rukd.expect_no_more_descriptors();
    EXPECT_EQ(host.wait(60s), 0) << host.out();
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(10s), 0);
    const Counters host_counters{host.out()};
    print_tally();
    printf("%lld times a link went down\n", static_cast<long long>(host_counters["flaps"]));
    for (int i = 0; i < 3; i++) {
        cards[i].send(SIGINT);
        EXPECT_EQ(cards[i].wait(), 0) << cards[i].err();
        expect_explained(i, host_counters, {cards[i].out()});
    }
    expect_pictures_and_firmware({cards[0].out()});
}

} // namespace

} // namespace bed
