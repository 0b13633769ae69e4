#include "helpers/log_directory.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view kRealDirectory = "/var/log/";

// Never destroyed: code under test may still log while the process ends.
std::string &directory() {
    static auto *const the_directory = new std::string;
    return *the_directory;
}

std::function<void()> &amid_opening() {
    static auto *const act = new std::function<void()>;
    return *act;
}

std::atomic<int> g_openings{0};

} // namespace

namespace test {

void set_log_directory(const std::string &name) {
    directory() = name;
    g_openings = 0;
}

void set_amid_opening(std::function<void()> act) {
    amid_opening() = std::move(act);
}

int log_openings() {
    return g_openings;
}

} // namespace test

extern "C" {

FILE *__real_fopen(const char *name, const char *mode);
FILE *__wrap_fopen(const char *name, const char *mode);

FILE *__wrap_fopen(const char *name, const char *mode) {
    const std::string_view wanted = name;
    if (!wanted.starts_with(kRealDirectory)) {
        return __real_fopen(name, mode);
    }
    g_openings += 1;
    if (directory().empty()) {
        errno = ENOENT;
        return nullptr;
    }
    if (amid_opening()) {
        std::exchange(amid_opening(), nullptr)();
    }
    const std::string moved = directory() + "/" + std::string(wanted.substr(kRealDirectory.size()));
    return __real_fopen(moved.c_str(), mode);
}
}
