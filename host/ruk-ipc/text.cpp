#include "text.h"

#include "exchange.h"
#include "fields.h"
#include "main/main.h"

#include <cstdio>

namespace ipc {

namespace {

void print_fields(const Request &request) {
    for (const NamedField &row : kFields) {
        const int digits = static_cast<int>(2 * row.field.width);
        (void)std::printf("%2zu %-9s 0x%0*x\n", row.field.offset, row.name, digits,
                          static_cast<unsigned>(load_le(request.bytes.data(), row.field)));
    }
}

void print_dry_run(const Outcome &outcome) {
    size_t number = 0;
    for (const Request &request : outcome.dry_run) {
        (void)std::printf("message %zu of %zu, %zu bytes to %s%s\n", ++number,
                          outcome.dry_run.size(), request.bytes.size(),
                          hex32(service_address()).c_str(),
                          request.reply == ReplyKind::kNone ? ", no reply comes" : "");
        process_recvbuf(request.bytes.data(), 0, static_cast<uint32_t>(request.bytes.size()));
        print_fields(request);
    }
}

// Nothing that another process sends reaches the terminal as a control character.
std::string printable(const std::string &text) {
    std::string shown = text;
    for (char &c : shown) {
        const auto byte = static_cast<unsigned char>(c);
        c = byte < ' ' || byte > '~' ? '.' : c;
    }
    return shown;
}

const char *ending(Status status) {
    switch (status) {
    case Status::kAnswered:
        return ": the card has answered";
    case Status::kHandedOver:
        return ": handed over";
    default:
        return ": done";
    }
}

void print_done(const Arguments &arguments, const Outcome &outcome) {
    std::string line = describe(arguments, arguments.addr, outcome.total);
    line += ending(outcome.status);
    if (!arguments.output.empty()) {
        line += ", saved in " + arguments.output;
    } else if (!outcome.message.empty()) {
        line += "; " + outcome.message;
    }
    (void)std::printf("%s\n", line.c_str());
}

} // namespace

// Whether it could be printed is asked once, when all is flushed.
void print_text(const Arguments &arguments, const Outcome &outcome) {
    if (exit_status(outcome.status) != 0) {
        return;
    }
    if (outcome.status == Status::kDryRun) {
        print_dry_run(outcome);
    } else if (arguments.command->reply == ReplyKind::kGreeting) {
        (void)std::printf("%s\n", printable(outcome.greeting).c_str());
    } else if (arguments.command->reply == ReplyKind::kData && arguments.output.empty()) {
        process_recvbuf(outcome.data.data(), arguments.addr, outcome.total);
    } else {
        print_done(arguments, outcome);
    }
}

} // namespace ipc
