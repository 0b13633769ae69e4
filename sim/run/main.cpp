// main.cpp - ruk-card, a simulated FPGA card on real or virtual Ethernet links.

#include <cstdio>
#include <exception>
#include <string>

#include "new_file.h"
#include "run/loop.h"
#include "run/options.h"

namespace {

constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

int print(const std::string &text) {
    return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? kExitDone
                                                                             : kExitFailed;
}

int run(std::span<const char *const> arguments) {
    card::Options options;
    std::string wrong = card::parse_options(arguments, options);
    if (!options.text.empty()) {
        return print(options.text);
    }
    if (wrong.empty() && !options.picture_directory.empty()) {
        wrong = card::check_directory("picture", options.picture_directory);
    }
    if (wrong.empty() && !options.firmware_directory.empty()) {
        wrong = card::check_directory("firmware", options.firmware_directory);
    }
    if (!wrong.empty()) {
        (void)std::fprintf(stderr, "ruk-card: %s\nTry 'ruk-card --help'.\n", wrong.c_str());
        return kExitUsage;
    }
    const std::string failure = card::run_card(options);
    if (!failure.empty()) {
        (void)std::fprintf(stderr, "ruk-card: %s\n", failure.c_str());
        return kExitFailed;
    }
    return kExitDone;
}

} // namespace

int main(int argc, char **argv) {
    try {
        const std::span<const char *const> all(argv, static_cast<size_t>(argc));
        return run(all.subspan(all.empty() ? 0 : 1));
    } catch (const std::exception &error) { // memory is the only thing that can run out
        (void)std::fprintf(stderr, "ruk-card: %s\n", error.what());
        return kExitFailed;
    }
}
