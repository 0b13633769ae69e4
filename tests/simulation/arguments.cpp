#include "arguments.h"

#include <cstdio>
#include <cstdlib>

namespace sim {

namespace {

constexpr char kUsage[] =
    "usage: simulate [options]\n"
    "  --case NAME         only this case; --list shows all\n"
    "  --strategy NAME     only random, pct or exhaustive\n"
    "  --seed N            the first seed; alone: this one\n"
    "  --count N           so many seeds of each case and strategy\n"
    "  --minutes M         as many as there is time for\n"
    "  --preemptions N     exhaustive: so many switches away from a thread that could go on\n"
    "  --schedule TEXT     one schedule that the exhaustive search has found\n"
    "  --kept FILE         the runs in a file: case, strategy, seed or schedule in each line\n"
    "  --tell              show what happens in every run\n";

[[noreturn]] void refuse(const std::string &why) {
    fprintf(stderr, "simulate: %s\n%s", why.c_str(), kUsage);
    std::exit(2);
}

Strategy strategy_of(const std::string &name) {
    for (const Strategy each : {Strategy::kRandom, Strategy::kPct, Strategy::kExhaustive}) {
        if (name == name_of(each)) {
            return each;
        }
    }
    refuse("no strategy: " + name);
}

uint64_t number(const std::string &text) {
    char *end = nullptr;
    const uint64_t value = strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0') {
        refuse("no number: " + text);
    }
    return value;
}

double time_span(const std::string &text) {
    char *end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value > 0)) {
        refuse("no time: " + text);
    }
    return value;
}

void take(Arguments &arguments, const std::string &option, const std::string &value) {
    if (option == "--case") {
        arguments.only_case = value;
    } else if (option == "--strategy") {
        arguments.only_strategy = strategy_of(value);
    } else if (option == "--seed") {
        arguments.seed = number(value);
    } else if (option == "--count") {
        arguments.count = number(value);
    } else if (option == "--minutes") {
        arguments.minutes = time_span(value);
    } else if (option == "--preemptions") {
        arguments.preemptions = static_cast<uint32_t>(number(value));
    } else if (option == "--schedule") {
        arguments.schedule = value;
    } else if (option == "--kept") {
        arguments.kept = value;
    } else {
        refuse("no option: " + option);
    }
}

} // namespace

Arguments read_arguments(int argc, char **argv) {
    Arguments arguments;
    for (int i = 1; i < argc; i++) {
        const std::string option = argv[i];
        if (option == "--tell") {
            arguments.tells = true;
        } else if (option == "--list") {
            arguments.lists = true;
        } else if (i + 1 < argc) {
            i += 1;
            take(arguments, option, argv[i]);
        } else {
            refuse("no value or no option: " + option);
        }
    }
    return arguments;
}

} // namespace sim
