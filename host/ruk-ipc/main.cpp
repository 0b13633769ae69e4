// main.cpp - ruk-ipc, the client of the request service for people and scripts.

#include "arguments.h"
#include "base/standard_streams.h"
#include "help.h"
#include "json.h"
#include "run.h"
#include "text.h"
#include "timer/unblock.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <span>

namespace {

using ipc::Status;

void complain(const std::string &message) {
    (void)std::fprintf(stderr, "ruk-ipc: %s\n", message.c_str());
}

// The result is only there once it is written.
int finish(Status status) {
    const bool failed_before = std::ferror(stdout) != 0; // the reason is gone by now
    if (std::fflush(stdout) != 0) {
        complain(std::string("cannot write to standard output: ") + std::strerror(errno));
    } else if (failed_before) {
        complain("cannot write to standard output");
    } else {
        return ipc::exit_status(status);
    }
    return ipc::exit_status(Status::kFailed);
}

void print(const std::string &text) {
    (void)std::fputs(text.c_str(), stdout); // finish asks whether it could be written
}

int finish_wrong(const ipc::Arguments &arguments, const std::string &wrong, bool json) {
    complain(wrong + "\nTry 'ruk-ipc --help'.");
    if (json) {
        ipc::Outcome outcome;
        outcome.status = Status::kUsage;
        outcome.message = wrong;
        print(ipc::json_object(arguments, outcome));
    }
    return finish(Status::kUsage);
}

int finish_command(const ipc::Arguments &arguments) {
    const ipc::Outcome outcome = ipc::run(arguments);
    if (outcome.status == Status::kUsage) {
        return finish_wrong(arguments, outcome.message, arguments.json);
    }
    if (ipc::exit_status(outcome.status) != 0) {
        complain(outcome.message);
    }
    if (arguments.json) {
        print(ipc::json_object(arguments, outcome));
    } else {
        ipc::print_text(arguments, outcome);
    }
    return finish(outcome.status);
}

int run(std::span<const char *const> words) {
    ipc::Arguments arguments;
    const std::string wrong = ipc::parse_arguments(words, arguments);
    if (!wrong.empty()) {
        return finish_wrong(arguments, wrong, ipc::wants_json(words));
    }
    if (arguments.action != ipc::Action::kRun) {
        print(arguments.action == ipc::Action::kHelp ? ipc::help_text() : ipc::version_text());
        return finish(Status::kOk);
    }
    return finish_command(arguments);
}

} // namespace

int main(int argc, char **argv) {
    fill_standard_streams();
    unblock({SIGINT, SIGTERM, SIGQUIT});
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader that went away is a failed write like any other
    try {
        const std::span<const char *const> all(argv, static_cast<size_t>(argc));
        return run(all.subspan(all.empty() ? 0 : 1));
    } catch (const std::exception &error) { // memory is the only thing that can run out
        complain(error.what());
        return ipc::exit_status(Status::kFailed);
    }
}
