#include "tests/system/bed/bed.h"

#include "tests/system/bed/journal.h"
#include "tests/system/bed/repeat.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace bed {

namespace {

constexpr char kMarker[] = "ruktestbed"; // stands only in the test bed's namespace
constexpr int kRefused = 2;
constexpr int kCardPriority = 80;   // below the receive thread
constexpr auto kLateReplies = 50ms; // what the card still has to send and count

std::vector<std::string> &journal() {
    static auto *entries = new std::vector<std::string>;
    return *entries;
}

void become_real_time() {
    const sched_param priority{.sched_priority = kCardPriority};
    if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
        perror("sched_setscheduler");
        _exit(1);
    }
}

} // namespace

void journal_add(const std::string &entry) {
    journal().push_back(entry);
}

int64_t Counters::operator[](const std::string &name) const {
    const std::string key = "\"" + name + "\":";
    const size_t at = json.rfind(key);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no counter " << name << " in " << json;
        return -1;
    }
    return strtoll(json.c_str() + at + key.size(), nullptr, 10);
}

Words card_command(const Words &options) {
    const char *card_namespace = getenv("RUK_CARD_NETNS");
    Words argv = {"nsenter",
                  std::string("--net=") + (card_namespace != nullptr ? card_namespace : ""),
                  RUK_CARD_PROGRAM};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.emplace_back("card0");
    return argv;
}

Card::Card(const Words &options, Priority priority)
    : process_({.argv = card_command(options),
                .in_child = priority == Priority::kRealTime ? become_real_time : nullptr}) {
    if (!process_.await_output("card0\n")) { // the last word of "ready ..."
        throw std::runtime_error("ruk-card did not start: " + process_.err());
    }
}

Counters Card::stop() {
    Counters counters = stop_overloaded();
    EXPECT_EQ(counters["kernel_drops"], 0);
    return counters;
}

Counters Card::stop_overloaded() {
    std::this_thread::sleep_for(kLateReplies);
    process_.send(SIGINT);
    EXPECT_EQ(process_.wait(), 0) << process_.err();
    return {process_.out()};
}

Directory::Directory() {
    char name[] = "/tmp/ruk-system-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path_ = name;
}

Directory::~Directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string Directory::path(const std::string &name) const {
    return path_ + "/" + name;
}

std::string Directory::file(const std::string &name, const Bytes &content) const {
    std::ofstream file(path(name), std::ios::binary);
    file.write(reinterpret_cast<const char *>(content.data()),
               static_cast<std::streamsize>(content.size()));
    return path(name);
}

Bytes content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    Bytes content(static_cast<size_t>(std::max<std::streamoff>(file.tellg(), 0)));
    file.seekg(0);
    file.read(reinterpret_cast<char *>(content.data()),
              static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<size_t>(std::max<std::streamsize>(file.gcount(), 0)));
    return content;
}

Bytes pattern(size_t size) {
    constexpr size_t kPeriod = 251; // a prime: no power of two and no 1400 shifts it onto itself
    Bytes bytes(size);
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<uint8_t>(1 + i % kPeriod);
    }
    return bytes;
}

Bytes part(const Bytes &bytes, size_t offset, size_t size) {
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return {from, from + static_cast<std::ptrdiff_t>(size)};
}

std::string dump(uint32_t addr, const Bytes &data) {
    const auto address = [](uint32_t value) {
        char text[16];
        (void)snprintf(text, sizeof text, "\n%08x: ", value);
        return std::string(text);
    };
    const size_t whole_groups = data.size() / 4 * 4;
    std::string text = whole_groups == 0 ? address(addr) : "";
    for (size_t i = 0; i < data.size(); i++) {
        if (i % 16 == 0 && i < whole_groups) {
            text += address(addr + static_cast<uint32_t>(i));
        }
        text += hex({data[i]});
        if (i % 4 == 3) {
            text += " ";
        }
    }
    return text + "\n";
}

void SystemTest::SetUp() {
    journal().clear();
}

void SystemTest::TearDown() {
    if (!HasFailure()) {
        return;
    }
    const auto *info = testing::UnitTest::GetInstance()->current_test_info();
    const std::string name =
        std::string(RUK_KEEP_DIRECTORY "/") + info->test_suite_name() + "." + info->name() + ".log";
    std::filesystem::create_directories(RUK_KEEP_DIRECTORY);
    std::ofstream file(name);
    for (const std::string &entry : journal()) {
        file << entry << "\n\n";
    }
    (void)fprintf(stderr, "outputs and frames of this test: %s\n", name.c_str());
}

} // namespace bed

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (if_nametoindex(bed::kMarker) == 0) {
        (void)fprintf(stderr, "%s: start with scripts/testbed, nothing is sent elsewhere\n",
                      argv[0]);
        return bed::kRefused;
    }
    return bed::run_and_repeat();
}
