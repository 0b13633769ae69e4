#include "failing.h"

#include "card_and_files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <regex>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace failing {

namespace {

using namespace std::chrono_literals;

constexpr bed::Milliseconds kBound = 15s; // no command takes a fifth of it
// What a short run does. The share has no factor in common with the lengths of the lists: one list
// after the other, it comes to every call.
constexpr uint32_t kFirstOnes = 3; // of a loop, then
constexpr uint32_t kStride = 11;   // every so many
constexpr int kShare = 13;         // of the loops: one in so many
constexpr int kEnough = 3;         // failed runs of one loop say it all

bool wants_all() {
    const char *value = getenv("RUK_FAILURES");
    return value != nullptr && std::string_view(value) == "all";
}

// One line of the summary, on standard output and in a file for whoever counts.
void report(const std::string &line) {
    printf("%s\n", line.c_str());
    (void)fflush(stdout);
    const char *name = getenv("RUK_FAILURES_SUMMARY");
    if (name != nullptr) {
        std::ofstream(name, std::ios::app) << line << "\n";
    }
}

std::string name_of(const Failure &failure) {
    return std::string(kCallNames[static_cast<size_t>(failure.call)]) + " " +
           strerrorname_np(failure.error) + (failure.goes_on ? ", from then on" : "");
}

} // namespace

Failing::Failing(const Directory &directory) : file_(directory.path("order")) {
    const int fd = open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(Order)) != 0) {
        throw std::runtime_error(file_);
    }
    void *place = mmap(nullptr, sizeof(Order), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    (void)close(fd);
    if (place == MAP_FAILED) {
        throw std::runtime_error("mmap " + file_);
    }
    order_ = new (place) Order{};
}

Failing::~Failing() {
    (void)munmap(order_, sizeof(Order));
}

Launch Failing::with_module(Launch launch) const {
    launch.in_child = [file = file_, before = launch.in_child] {
        if (before) {
            before();
        }
        (void)setenv(kOrderVariable, file.c_str(), 1);
        (void)setenv("LD_PRELOAD", RUK_FAIL_CALL_MODULE, 1);
    };
    return launch;
}

void Failing::set(const Failure &failure, uint32_t nth, bool from_main) {
    stop();
    order_->call = failure.call;
    order_->error = failure.error;
    order_->goes_on = failure.goes_on ? 1 : 0;
    order_->nth = nth;
    order_->from_main = from_main ? 1 : 0;
    order_->seen = 0;
    order_->fired = 0;
    order_->where = 0;
    memset(order_->object, 0, sizeof order_->object);
    text_ = name_of(failure) + ", " + std::to_string(nth);
}

void Failing::start() {
    order_->is_counting = 1;
}

void Failing::stop() {
    order_->is_counting = 0;
}

bool Failing::has_fired() const {
    return order_->fired > 0;
}

std::string Failing::description() const {
    char place[128];
    (void)snprintf(place, sizeof place, ", %u times, first in %s+0x%llx", order_->fired.load(),
                   order_->object, static_cast<unsigned long long>(order_->where));
    return text_ + (has_fired() ? place : ", did not come to it");
}

void fail_in_turn(const std::string &what, const std::vector<Failure> &failures, Failing &order,
                  bool from_main, const std::function<void()> &body) {
    static int loops = 0;
    const bool all = wants_all();
    for (const Failure &failure : failures) {
        if (loops++ % kShare != 0 && !all) {
            continue;
        }
        int runs = 0;
        int bad_runs = 0;
        uint32_t last = 0;
        for (uint32_t nth = 1; bad_runs < kEnough; nth += all || nth < kFirstOnes ? 1 : kStride) {
            const int before =
                testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
            order.set(failure, nth, from_main);
            body();
            order.stop();
            runs += 1;
            const auto *result = testing::UnitTest::GetInstance()->current_test_info()->result();
            if (result->total_part_count() > before) {
                bad_runs += 1;
                report("BAD " + what + ": " + order.description());
            }
            if (!order.has_fired()) {
                break;
            }
            last = nth;
        }
        report(what + ": " + name_of(failure) + ": N = " + std::to_string(last) + ", " +
               std::to_string(runs) + " runs" + (bad_runs > 0 ? ", BAD" : ""));
    }
}

std::vector<Failure> single_and_lasting(std::initializer_list<Failure> failures) {
    std::vector<Failure> all;
    for (Failure failure : failures) {
        all.push_back(failure);
        failure.goes_on = true;
        all.push_back(failure);
    }
    return all;
}

std::vector<Failure> with_files(std::vector<Failure> failures) {
    for (const Failure &failure : single_and_lasting({{Call::kOpen, EMFILE},
                                                      {Call::kFdopen, ENOMEM},
                                                      {Call::kFread, EIO},
                                                      {Call::kFwrite, ENOSPC},
                                                      {Call::kFclose, ENOSPC}})) {
        failures.push_back(failure);
    }
    return failures;
}

Finished run_to_end(const Launch &launch) {
    const auto start = std::chrono::steady_clock::now();
    bed::Process process(launch);
    const auto status = process.wait(kBound);
    const auto took =
        std::chrono::duration_cast<bed::Milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_TRUE(status.has_value()) << "does not end:\n" << process.out() << process.err();
    return {status.value_or(-1), process.out(), process.err(), took};
}

std::string lasting_words(const std::string &output) {
    static const std::regex header(R"(\[\d{4}/[^\]]* pid=\d+\] \[ *([^/]*)/[^\]]*\]:: )");
    static const std::regex numbers(R"(\d+\.\d+|sock_fd = \d+|cost:\d+|\d+ sec,\d+ usec)");
    const std::string bare =
        std::regex_replace(std::regex_replace(output, header, ""), numbers, "#");
    std::vector<std::string> lines;
    for (size_t at = 0; at < bare.size();) {
        const size_t end = std::min(bare.find('\n', at), bare.size());
        const std::string line = bare.substr(at, end - at);
        if (!contains(line, "thread id : ") && !contains(line, "thread1 id : ")) {
            lines.push_back(line);
        }
        at = end + 1;
    }
    std::ranges::sort(lines); // the threads' lines come in any order
    std::string words;
    for (const std::string &line : lines) {
        words += line + "\n";
    }
    return words;
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

} // namespace failing
