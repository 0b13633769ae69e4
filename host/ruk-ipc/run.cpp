#include "run.h"

#include "ap_msg/firmware/update_layout.h"
#include "ap_msg/message_layout.h"
#include "exchange.h"
#include "files.h"
#include "picture.h"
#include "reply.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace ipc {

namespace {

constexpr uint32_t kServiceFailed = 0xFFFFFFFF;

// Kinds that the service knows, and those among them that it sends itself.
constexpr uint32_t kFirstKind = 0x16;
constexpr uint32_t kFirstSentKind = 0x19;
constexpr uint32_t kLastKind = 0x1E;

struct StatusRow {
    Status status;
    int exit_status;
    const char *name;
};
constexpr StatusRow kStatuses[] = {
    {Status::kOk, 0, "ok"},
    {Status::kAnswered, 0, "answered"},
    {Status::kHandedOver, 0, "handed-over"},
    {Status::kDryRun, 0, "dry-run"},
    {Status::kRefused, 1, "refused"},
    {Status::kFailed, 1, "failed"},
    {Status::kUsage, 2, "usage"},
    {Status::kNoAnswer, 3, "no-answer"},
};

const StatusRow &row_of(Status status) {
    for (const StatusRow &row : kStatuses) {
        if (row.status == status) {
            return row;
        }
    }
    return kStatuses[0]; // every status has its row
}

// Differs from run to run, so that a reply to a client that had this module id before fits nothing.
uint16_t first_seq() {
    constexpr unsigned kNsPerStep = 0x10000;  // 65 us: shorter than a run
    constexpr uint64_t kSpreadOfPids = 40503; // odd: neighbours land far from each other
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    const auto ns =
        static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
    return static_cast<uint16_t>(ns / kNsPerStep + static_cast<uint64_t>(getpid()) * kSpreadOfPids);
}

bool fail(Outcome &outcome, Status status, std::string message) {
    outcome.status = status;
    outcome.message = std::move(message);
    return false;
}

const char *what_was_done(Status status) {
    switch (status) {
    case Status::kAnswered:
        return "answered";
    case Status::kHandedOver:
        return "handed over";
    default:
        return "read";
    }
}

// Of a transfer in pieces: how far it got.
std::string progress(const Outcome &outcome) {
    if (outcome.done == 0 || outcome.done == outcome.total) {
        return {};
    }
    return "; the first " + std::to_string(outcome.done) + " of " + std::to_string(outcome.total) +
           " bytes were " + what_was_done(outcome.status) + " before";
}

std::string refusal(const Arguments &arguments, uint32_t result) {
    if (arguments.command->reply == ReplyKind::kUpdate && result != kServiceFailed) {
        return "the service reports exit status " + std::to_string(result) +
               " of the programming tool";
    }
    if (arguments.command->reply == ReplyKind::kUpdate) {
        return "the service reports a failure (result -1): the file is missing there or cannot be "
               "copied, or the card did not take it; look at the log of rukd";
    }
    if (arguments.command->reply == ReplyKind::kHeader && result == kServiceFailed) {
        return "the service reports a failure (result -1): no answer from the card within its "
               "time, or nothing could be sent; the card may have been written to all the same";
    }
    if (result == kServiceFailed) {
        return "the service reports a failure (result -1): no answer from the card within its "
               "time, or the card refused";
    }
    return "the service reports result " + hex(result);
}

std::string silence(const Answer &answer, uint32_t timeout_ms) {
    std::string text = "no answer from the service " + hex32(service_address()) + " in " +
                       message_directory() + " within " + std::to_string(timeout_ms) + " ms";
    if (answer.dropped != 0) {
        text += "; " + std::to_string(answer.dropped) + " other messages came and were dropped";
    }
    if (answer.receive_error != 0) {
        text += "; receiving failed with errno " + std::to_string(answer.receive_error);
    }
    return text + ". Look at: is rukd running and not busy with another request, what does its log "
                  "say of this one. A card that does not answer is no reason: rukd would say so";
}

bool take_reply(const Arguments &arguments, const Request &request, const Reply &reply,
                Outcome &outcome) {
    outcome.result = result_of(reply);
    const std::string what = describe(arguments, request.addr, request.len) + ": ";
    if (*outcome.result != 0) {
        return fail(outcome, Status::kRefused,
                    what + refusal(arguments, *outcome.result) + progress(outcome));
    }
    if (const std::string wrong = check_reply(request, reply); !wrong.empty()) {
        return fail(outcome, Status::kFailed,
                    what + "the service sent " + wrong + progress(outcome));
    }
    if (request.reply == ReplyKind::kData) {
        const auto data = data_of(reply);
        outcome.data.insert(outcome.data.end(), data.begin(), data.end());
    } else if (request.reply == ReplyKind::kGreeting) {
        outcome.greeting = greeting_of(reply);
    } else if (request.reply == ReplyKind::kHeader && outcome.status != Status::kHandedOver) {
        outcome.status = Status::kAnswered;
    }
    return true;
}

bool hand_over(const Arguments &arguments, Request &request, Outcome &outcome) {
    const std::string failure = send(request);
    if (!failure.empty()) {
        return fail(outcome, Status::kNoAnswer,
                    describe(arguments, request.addr, request.len) + ": " + failure +
                        progress(outcome));
    }
    outcome.status = Status::kHandedOver; // for the whole transfer, if only for one piece of it
    return true;
}

bool exchange(const Arguments &arguments, Request &request, Outcome &outcome) {
    const uint32_t timeout_ms =
        arguments.timeout_ms != 0 ? arguments.timeout_ms : arguments.command->timeout_ms;
    const Answer answer = ask(request, timeout_ms);
    if (answer.arrived) {
        return take_reply(arguments, request, answer.reply, outcome);
    }
    const std::string reason =
        answer.not_sent.empty() ? silence(answer, timeout_ms) : answer.not_sent;
    return fail(outcome, Status::kNoAnswer,
                describe(arguments, request.addr, request.len) + ": " + reason + progress(outcome));
}

bool carry_out(const Arguments &arguments, Request &request, Outcome &outcome) {
    outcome.seq = static_cast<uint16_t>(load_le(request.bytes.data(), message::kSeq));
    outcome.requests += 1;
    const bool done = request.reply == ReplyKind::kNone ? hand_over(arguments, request, outcome)
                                                        : exchange(arguments, request, outcome);
    outcome.done += done && outcome.total != 0 ? request.len : 0;
    return done;
}

void transfer(const Arguments &arguments, std::span<const uint8_t> bytes, uint8_t module,
              Outcome &outcome) {
    const uint16_t start = first_seq();
    for (uint32_t i = 0; i < piece_count(outcome.total); i++) {
        const Piece piece = piece_at(outcome.total, i);
        const auto data = bytes.empty() ? bytes : bytes.subspan(piece.offset, piece.len);
        Request request = build_request(
            arguments, piece, data,
            {.address = own_address(module), .seq = static_cast<uint16_t>(start + i)});
        if (arguments.dry_run) {
            outcome.dry_run.push_back(std::move(request));
        } else if (!carry_out(arguments, request, outcome)) {
            return;
        }
    }
}

// The bytes of a write command. False: the outcome says why not.
bool gather_input(const Arguments &arguments, std::vector<uint8_t> &bytes, Outcome &outcome) {
    bytes = arguments.bytes;
    if (arguments.input.empty()) {
        return true;
    }
    const std::string wrong = read_file(arguments.input, kLongestTransfer, bytes);
    if (!wrong.empty()) {
        return fail(outcome, Status::kFailed, "--input: " + wrong);
    }
    const std::string range = check_range(*arguments.command, arguments.addr, bytes.size());
    return range.empty() || fail(outcome, Status::kUsage, range);
}

// The service would only log it, and nobody would learn that nothing happens.
bool check_picture(const Arguments &arguments, Outcome &outcome) {
    if (arguments.command->code != message::kCodePutPicture || arguments.dry_run) {
        return true;
    }
    const std::string wrong = check_picture_file(arguments.file, arguments.width, arguments.height);
    return wrong.empty() || fail(outcome, Status::kFailed, "put-picture: " + wrong);
}

bool has_ending_of_firmware(const std::string &file) {
    for (const char *mark : {".BIN", ".bin", ".Bin"}) {
        if (file.find(mark) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool is_sent_by_service(const Arguments &arguments) {
    return arguments.kind >= kFirstSentKind && arguments.kind <= kLastKind &&
           has_ending_of_firmware(arguments.file);
}

// Those that the service sends to a card itself; the programming tool has limits of its own.
bool check_firmware(const Arguments &arguments, Outcome &outcome) {
    struct stat found {};
    if (arguments.command->code != message::kCodeUpdate || !is_sent_by_service(arguments) ||
        arguments.dry_run || stat(arguments.file.c_str(), &found) != 0 ||
        static_cast<uint64_t>(found.st_size) <= update::kLargestFirmware) {
        return true; // whatever else is wrong with it, the service will tell
    }
    return fail(outcome, Status::kFailed,
                "update: '" + arguments.file + "' has " + std::to_string(found.st_size) +
                    " bytes, a firmware has at most " + std::to_string(update::kLargestFirmware));
}

// The service reports success for what it leaves alone; for the user it is none.
std::string left_alone(const Arguments &arguments) {
    if (arguments.command->code != message::kCodeUpdate) {
        return {};
    }
    if (arguments.kind < kFirstKind || arguments.kind > kLastKind) {
        return "the service knows kinds 0x16 to 0x1e only, so nothing was updated";
    }
    if (arguments.kind >= kFirstSentKind && !has_ending_of_firmware(arguments.file)) {
        return "the service sends files with .bin in their name only, so nothing was updated";
    }
    return {};
}

std::string success_note(const Arguments &arguments, const Outcome &outcome) {
    switch (arguments.command->code) {
    case message::kCodeWriteAck:
        return outcome.status == Status::kHandedOver
                   ? "not acknowledged: to slot 1, model 0, addresses below 0x10000000 the service "
                     "writes without acknowledgement"
                   : "whether it did as it was told stands in the log of rukd only";
    case message::kCodePutPicture:
        return "the service sends no reply; look at its log";
    case message::kCodeGetPicture:
        return "the service sends no reply; the pixels appear in " + arguments.file + " and " +
               arguments.file + ".bmp";
    default:
        return {};
    }
}

void save_output(const Arguments &arguments, Outcome &outcome) {
    if (arguments.output.empty()) {
        return;
    }
    const std::string wrong = save_file(arguments.output, outcome.data);
    if (!wrong.empty()) {
        (void)fail(outcome, Status::kFailed, "--output: " + wrong);
    }
}

bool is_success(Status status) {
    return exit_status(status) == 0;
}

} // namespace

int exit_status(Status status) {
    return row_of(status).exit_status;
}

const char *status_name(Status status) {
    return row_of(status).name;
}

std::string describe(const Arguments &arguments, uint32_t addr, uint32_t len) {
    std::string text = arguments.command->word;
    if (arguments.command->has_input || arguments.command->has_output) {
        text += " of " + std::to_string(len) + (len == 1 ? " byte" : " bytes");
    }
    if (arguments.command->has_address) {
        text += " at " + hex32(addr);
    }
    if (arguments.command->has_card) {
        text += ", slot " + hex(arguments.slot) + ", model " + hex(arguments.model);
    }
    return text;
}

Outcome run(const Arguments &arguments) {
    Outcome outcome;
    std::vector<uint8_t> bytes;
    if (!gather_input(arguments, bytes, outcome) || !check_picture(arguments, outcome) ||
        !check_firmware(arguments, outcome)) {
        return outcome;
    }
    outcome.total = arguments.len + static_cast<uint32_t>(bytes.size());
    uint8_t module = arguments.module;
    if (arguments.dry_run) {
        outcome.status = Status::kDryRun;
        module = module == 0 ? first_free_module() : module;
    } else if (const std::string failure = join(module); !failure.empty()) {
        (void)fail(outcome, Status::kNoAnswer, failure);
        return outcome;
    }
    transfer(arguments, bytes, module, outcome);
    if (arguments.dry_run) {
        return outcome;
    }
    const std::string nothing_done = left_alone(arguments);
    if (is_success(outcome.status) && !nothing_done.empty()) {
        (void)fail(outcome, Status::kRefused, describe(arguments, 0, 0) + ": " + nothing_done);
    }
    if (is_success(outcome.status)) {
        outcome.message = success_note(arguments, outcome);
        save_output(arguments, outcome);
    }
    return outcome;
}

} // namespace ipc
