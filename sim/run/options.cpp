#include "run/options.h"

#include <net/if.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string_view>

#include "run/parse.h"

namespace card {

namespace {

constexpr uint32_t kMax8 = 0xFF;
constexpr uint32_t kMax16 = 0xFFFF;
constexpr uint32_t kMax32 = 0xFFFFFFFF;

// Each function takes one option's value and returns null, or what it expected.
using Apply = const char *(*)(Options &, std::string_view);

constexpr const char *kWantHex8 = "expected hexadecimal 0 to ff";
constexpr const char *kWantHex16 = "expected hexadecimal 0 to ffff";
constexpr const char *kWantStatus = "expected STATUS@RANGE with STATUS hexadecimal 1 to ff";
constexpr const char *kWantLie = "expected LEN@RANGE with LEN a length up to 65535 or +N";
constexpr const char *kWantRange = "expected ADDR, ADDR-ADDR or any, perhaps followed by xN";
constexpr const char *kWantNth = "expected FAULT:N[,N...] with FAULT drop_request, drop, corrupt, "
                                 "duplicate, delay, reorder or noise and N from 1";
constexpr uint8_t kRefusalStatus = 0x01; // unless another one is given
constexpr const char *kWantField =
    "expected NAME or NAME:STATUS with NAME total_files_size, files_recv_len, total_files_count, "
    "current_file_size, v, device_type or card_modelid and STATUS hexadecimal 1 to ff";
constexpr const char *kWantBlock =
    "expected N or N:STATUS with N from 1 and STATUS hexadecimal 1 to ff";
constexpr const char *kWantSave = "expected FILE or FILE@ADDR:LEN within 4 GiB";
constexpr const char *kWantDdr2Picture =
    "expected MEM:ADDR:WIDTHxHEIGHT with MEM 0 or 1, all of it within the 4 GiB of the memory and "
    "not larger than 64 MiB as a picture";

const char *set_model(Options &options, std::string_view text) {
    const auto value = parse_hex(text, kMax16);
    if (!value) {
        return kWantHex16;
    }
    options.identity.model = static_cast<uint16_t>(*value);
    return nullptr;
}

const char *set_slot(Options &options, std::string_view text) {
    const auto value = parse_hex(text, kMax8);
    if (!value) {
        return kWantHex8;
    }
    options.identity.slot = static_cast<uint8_t>(*value);
    return nullptr;
}

const char *add_load(Options &options, std::string_view text) {
    LoadOrder order;
    order.path = text;
    if (const auto parts = split_last(text, '@')) {
        const auto addr = parse_hex(parts->second, kMax32);
        if (!addr) {
            return "expected FILE or FILE@ADDR";
        }
        order.path = parts->first;
        order.addr = *addr;
    }
    if (order.path.empty()) {
        return "expected a file name";
    }
    options.loads.push_back(order);
    return nullptr;
}

// The part behind the @ of a --memory-save.
bool read_save_range(std::string_view text, SaveOrder &order) {
    const auto parts = split_first(text, ':');
    if (!parts) {
        return false;
    }
    const auto addr = parse_hex(parts->first, kMax32);
    const auto len = parse_count(parts->second, kMemorySize);
    if (!addr || !len || *len == 0 || *len > kMemorySize - *addr) {
        return false;
    }
    order.whole = false;
    order.addr = *addr;
    order.len = *len;
    return true;
}

const char *add_save(Options &options, std::string_view text) {
    SaveOrder order;
    order.path = text;
    if (const auto parts = split_last(text, '@')) {
        if (!read_save_range(parts->second, order)) {
            return kWantSave;
        }
        order.path = parts->first;
    }
    if (order.path.empty()) {
        return "expected a file name";
    }
    options.saves.push_back(order);
    return nullptr;
}

const char *set_picture_directory(Options &options, std::string_view text) {
    if (text.empty()) {
        return "expected a directory";
    }
    options.picture_directory = text;
    return nullptr;
}

// "MEM:ADDR:WIDTHxHEIGHT"; numbers that are missing or too large do not fit.
std::optional<Ddr2PictureOrder> parse_ddr2_picture(std::string_view text) {
    const auto head = split_first(text, ':');
    const auto tail = head ? split_first(head->second, ':') : std::nullopt;
    const auto sides = tail ? split_last(tail->second, 'x') : std::nullopt;
    if (!sides) {
        return std::nullopt;
    }
    const auto memory = parse_count(head->first, kMax8);
    const auto addr = parse_hex(tail->first, kMax32);
    const auto width = parse_count(sides->first, kMax32);
    const auto height = parse_count(sides->second, kMax32);
    if (!memory || !addr || !width || !height) {
        return std::nullopt;
    }
    const Ddr2PictureOrder order{.memory = static_cast<size_t>(*memory),
                                 .addr = *addr,
                                 .width = static_cast<uint32_t>(*width),
                                 .height = static_cast<uint32_t>(*height)};
    return ddr2_picture_fits(order) ? std::optional(order) : std::nullopt;
}

const char *add_ddr2_picture(Options &options, std::string_view text) {
    const auto order = parse_ddr2_picture(text);
    if (!order) {
        return kWantDdr2Picture;
    }
    options.ddr2_pictures.push_back(*order);
    return nullptr;
}

const char *set_firmware_directory(Options &options, std::string_view text) {
    if (text.empty()) {
        return "expected a directory";
    }
    options.firmware_directory = text;
    return nullptr;
}

// The status behind what is refused, "WHAT" or "WHAT:STATUS"; cuts it off the text.
std::optional<uint8_t> take_status(std::string_view &text) {
    const auto parts = split_first(text, ':');
    if (!parts) {
        return kRefusalStatus;
    }
    text = parts->first;
    const auto status = parse_hex(parts->second, kMax8);
    return status && *status != wire::kStatusCarriedOut
               ? std::optional(static_cast<uint8_t>(*status))
               : std::nullopt;
}

const char *add_field_refusal(Options &options, std::string_view text) {
    const auto status = take_status(text);
    const auto field = find_firmware_field(text);
    if (!status || !field) {
        return kWantField;
    }
    options.firmware_refusals.push_back({.field = field, .status = *status});
    return nullptr;
}

const char *add_block_refusal(Options &options, std::string_view text) {
    const auto status = take_status(text);
    const auto block = parse_count(text, kMax32);
    if (!status || !block || *block == 0) {
        return kWantBlock;
    }
    options.firmware_refusals.push_back({.block = *block, .status = *status});
    return nullptr;
}

const char *set_seed(Options &options, std::string_view text) {
    const auto value = parse_count(text, std::numeric_limits<uint64_t>::max());
    if (!value) {
        return "expected a number";
    }
    options.faults.seed = *value;
    return nullptr;
}

template <Fault fault>
const char *set_rate(Options &options, std::string_view text) {
    const auto value = parse_percent(text);
    if (!value) {
        return "expected a percentage from 0 to 100";
    }
    options.faults.rates_ppm[static_cast<size_t>(fault)] = *value;
    return nullptr;
}

const char *set_delay(Options &options, std::string_view text) {
    const auto parts = split_first(text, ':');
    const auto min = parse_duration(parts ? parts->first : text);
    const auto max = parts ? parse_duration(parts->second) : min;
    if (!min || !max || *max < *min) {
        return "expected MIN or MIN:MAX, each a number with us, ms or s, at most an hour";
    }
    options.faults.delay_min_us = *min;
    options.faults.delay_max_us = *max;
    return nullptr;
}

const char *add_error_rule(Options &options, std::string_view text, bool with_data) {
    const auto parts = split_first(text, '@');
    const auto status = parts ? parse_hex(parts->first, kMax8) : std::nullopt;
    if (!status || *status == wire::kStatusCarriedOut) {
        return kWantStatus;
    }
    const auto range = parse_address_range(parts->second);
    if (!range) {
        return kWantRange;
    }
    AddressRule rule;
    rule.fault = Fault::kError;
    rule.range = *range;
    rule.status = static_cast<uint8_t>(*status);
    rule.with_data = with_data;
    options.faults.rules.push_back(rule);
    return nullptr;
}

const char *add_error(Options &options, std::string_view text) {
    return add_error_rule(options, text, false);
}

const char *add_error_with_data(Options &options, std::string_view text) {
    return add_error_rule(options, text, true);
}

const char *add_silence(Options &options, std::string_view text) {
    const auto range = parse_address_range(text);
    if (!range) {
        return kWantRange;
    }
    AddressRule rule;
    rule.fault = Fault::kSilence;
    rule.range = *range;
    options.faults.rules.push_back(rule);
    return nullptr;
}

const char *add_lie_rule(Options &options, std::string_view text, bool field_only) {
    const auto parts = split_first(text, '@');
    if (!parts) {
        return kWantLie;
    }
    std::string_view amount = parts->first;
    AddressRule rule;
    rule.fault = Fault::kLieLength;
    rule.lie.field_only = field_only;
    rule.lie.relative = amount.starts_with('+');
    amount.remove_prefix(rule.lie.relative ? 1 : 0);
    const auto value = parse_count(amount, kMax16);
    const auto range = parse_address_range(parts->second);
    if (!value) {
        return kWantLie;
    }
    if (!range) {
        return kWantRange;
    }
    rule.lie.amount = static_cast<uint32_t>(*value);
    rule.range = *range;
    options.faults.rules.push_back(rule);
    return nullptr;
}

const char *add_lie_length(Options &options, std::string_view text) {
    return add_lie_rule(options, text, false);
}

const char *add_lie_field(Options &options, std::string_view text) {
    return add_lie_rule(options, text, true);
}

const char *set_ack_code(Options &options, std::string_view text) {
    const auto value = parse_hex(text, kMax8);
    if (!value) {
        return kWantHex8;
    }
    options.faults.ack_code = static_cast<uint8_t>(*value);
    return nullptr;
}

const char *set_read_code(Options &options, std::string_view text) {
    const auto value = parse_hex(text, kMax8);
    if (!value) {
        return kWantHex8;
    }
    options.faults.read_code = static_cast<uint8_t>(*value);
    return nullptr;
}

const char *set_type(Options &options, std::string_view text) {
    const auto value = parse_hex(text, kMax16);
    if (!value) {
        return kWantHex16;
    }
    // Typed in the order of the wire, where the first byte is the low one of our fields.
    options.faults.reply_type = static_cast<uint16_t>((*value >> 8) | (*value << 8));
    return nullptr;
}

const char *add_nth(Options &options, std::string_view text) {
    const auto parts = split_first(text, ':');
    const auto fault = parts ? find_random_fault(parts->first) : std::nullopt;
    if (!fault) {
        return kWantNth;
    }
    std::optional<std::string_view> rest = parts->second;
    while (rest) {
        const auto cut = split_first(*rest, ',');
        const auto number = parse_count(cut ? cut->first : *rest, kMax32);
        if (!number || *number == 0) {
            return kWantNth;
        }
        options.faults.nth.push_back({*fault, *number});
        rest = cut ? std::optional(cut->second) : std::nullopt;
    }
    return nullptr;
}

const char *set_counters(Options &options, std::string_view text) {
    if (text.empty()) {
        return "expected a file name";
    }
    options.counters_path = text;
    return nullptr;
}

const char *set_trace(Options &options, std::string_view) {
    options.trace = true;
    return nullptr;
}

const char *set_trace_file(Options &options, std::string_view text) {
    if (text.empty()) {
        return "expected a file name";
    }
    options.trace = true;
    options.trace_path = text;
    return nullptr;
}

const char *ask_help(Options &options, std::string_view) {
    options.action = Action::kHelp;
    return nullptr;
}

const char *ask_version(Options &options, std::string_view) {
    options.action = Action::kVersion;
    return nullptr;
}

struct OptionRow {
    const char *name;
    const char *value; // what --help calls the value; null when there is none
    Apply apply;
    const char *help; // lines after the first are indented by options_help
};

constexpr OptionRow kRows[] = {
    {"--model", "HEX", set_model, "answer only for this model (default: every model)"},
    {"--slot", "HEX", set_slot, "answer only for this slot (default: every slot)"},
    {"--memory-load", "FILE[@ADDR]", add_load,
     "load FILE to ADDR (default 0) before the start; may be repeated"},
    {"--memory-save", "FILE[@ADDR:LEN]", add_save,
     "at the end save LEN bytes from ADDR, or without them everything\n"
     "from address 0 to the last page written; may be repeated"},
    {"--picture-dir", "DIR", set_picture_directory,
     "save the pictures that the picture port receives in DIR, as\n"
     "picture-001.png and so on; files that exist are kept"},
    {"--ddr2-picture", "MEM:ADDR:WIDTHxHEIGHT", add_ddr2_picture,
     "at the end save a picture of this size from DDR2 memory MEM (0 or\n"
     "1) in DIR as ddr2-MEM-ADDR.png; ADDR counts 8 bytes, as in the\n"
     "control record; may be repeated"},
    {"--firmware-dir", "DIR", set_firmware_directory,
     "save the firmware that comes in, without its head, in DIR as\n"
     "firmware-001.bin and so on; files that exist are kept"},
    {"--seed", "N", set_seed, "start of the random faults (default 1)"},
    {"--drop", "P", set_rate<Fault::kDrop>, "lose P percent of the replies"},
    {"--drop-requests", "P", set_rate<Fault::kDropRequest>,
     "treat P percent of the requests as lost: nothing is carried out"},
    {"--corrupt", "P", set_rate<Fault::kCorrupt>, "spoil the checksum of P percent of the replies"},
    {"--duplicate", "P", set_rate<Fault::kDuplicate>, "send P percent of the replies twice"},
    {"--delay", "MIN[:MAX]", set_delay,
     "send replies after a time between MIN and MAX; plain numbers are\n"
     "microseconds, us, ms and s may be added; delayed replies can\n"
     "overtake each other"},
    {"--delay-share", "P", set_rate<Fault::kDelay>,
     "delay only P percent of the replies (default 100 with --delay)"},
    {"--reorder", "P", set_rate<Fault::kReorder>,
     "hold P percent of the replies back until the next reply on the\n"
     "same interface has gone, at most 20 ms"},
    {"--noise", "P", set_rate<Fault::kNoise>,
     "send an unrelated frame before the answer to P percent of the\n"
     "requests: other addresses and types, wrong markers, cut short"},
    {"--nth", "FAULT:N[,N...]", add_nth,
     "commit a fault on exactly the N-th chance, counted from 1: FAULT is\n"
     "drop, corrupt, duplicate, delay or reorder (chances: the replies)\n"
     "or drop_request or noise (chances: the requests); may be repeated"},
    {"--error", "STATUS@RANGE", add_error,
     "refuse requests with this status; a refused read carries no data"},
    {"--error-with-data", "STATUS@RANGE", add_error_with_data,
     "the same, but a refused read carries its data all the same"},
    {"--refuse-field", "NAME[:STATUS]", add_field_refusal,
     "refuse this field of every firmware transfer, with status 01 unless\n"
     "another one is given; may be repeated"},
    {"--refuse-block", "N[:STATUS]", add_block_refusal,
     "refuse the N-th block of every firmware transfer, likewise, as often\n"
     "as it comes; counted from 1; may be repeated"},
    {"--silence", "RANGE", add_silence, "carry requests out, but do not answer them"},
    {"--lie-length", "LEN@RANGE", add_lie_length,
     "let replies say and carry LEN bytes, or with +N that many more than\n"
     "asked; beyond 1400 only the length field says so"},
    {"--lie-field", "LEN@RANGE", add_lie_field,
     "the same for the length field alone: the payload stays honest"},
    {"--ack-code", "HEX", set_ack_code, "code of acknowledgements (default 11; cards also use 10)"},
    {"--read-code", "HEX", set_read_code, "code of read replies (default 00)"},
    {"--type", "HEX", set_type, "type field of replies, as on the wire (default 0700)"},
    {"--counters", "FILE", set_counters, "write the counters to FILE instead of standard output"},
    {"--trace", nullptr, set_trace, "print one line per frame on standard output"},
    {"--trace-file", "FILE", set_trace_file, "write these lines to FILE"},
    {"--help", nullptr, ask_help, "print this text"},
    {"--version", nullptr, ask_version, "print the version"},
};

const OptionRow *find_row(std::string_view name) {
    const auto *const row = std::ranges::find_if(
        kRows, [name](const OptionRow &candidate) { return name == candidate.name; });
    return row == std::end(kRows) ? nullptr : row;
}

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

std::string add_interface(Options &out, std::string_view name) {
    const std::string head = "options: interface " + quoted(name) + ": ";
    if (name.empty() || name.size() >= IFNAMSIZ) {
        return head + "expected a name of 1 to 15 characters";
    }
    if (std::ranges::find(out.interfaces, name) != out.interfaces.end()) {
        return head + "given twice";
    }
    if (out.interfaces.size() == kMaxInterfaces) {
        return head + "more than 16 interfaces";
    }
    out.interfaces.emplace_back(name);
    return "";
}

// One option with its value, which is in the same argument or in the next one.
std::string take_option(std::span<const char *const> &rest, Options &out) {
    const std::string_view argument = rest.front();
    rest = rest.subspan(1);
    const auto parts = split_first(argument, '=');
    const std::string_view name = parts ? parts->first : argument;
    const OptionRow *row = find_row(name);
    if (row == nullptr) {
        return "options: " + quoted(name) + ": no such option";
    }
    if (row->value == nullptr && parts) {
        return "options: " + quoted(name) + ": takes no value";
    }
    std::string_view value = parts ? parts->second : std::string_view{};
    if (row->value != nullptr && !parts) {
        if (rest.empty()) {
            return "options: " + quoted(name) + ": value " + row->value + " is missing";
        }
        value = rest.front();
        rest = rest.subspan(1);
    }
    const char *wanted = row->apply(out, value);
    return wanted == nullptr ? ""
                             : "options: " + quoted(name) + " " + quoted(value) + ": " + wanted;
}

bool orders_delay(const FaultConfig &faults) {
    return std::ranges::any_of(faults.nth,
                               [](const NthOrder &order) { return order.fault == Fault::kDelay; });
}

// What only the options together can tell.
std::string complete(Options &out, bool share_given) {
    FaultConfig &faults = out.faults;
    uint32_t &share = faults.rates_ppm[static_cast<size_t>(Fault::kDelay)];
    if (faults.delay_max_us == 0 && (share > 0 || orders_delay(faults))) {
        return "options: '--delay-share' and '--nth delay': need '--delay' with a time above 0";
    }
    if (faults.delay_max_us > 0 && !share_given && !orders_delay(faults)) {
        share = kAlways;
    }
    if (!out.ddr2_pictures.empty() && out.picture_directory.empty()) {
        return "options: '--ddr2-picture': needs '--picture-dir'";
    }
    if (out.interfaces.empty()) {
        return "options: no interface given";
    }
    return "";
}

} // namespace

std::string parse_options(std::span<const char *const> arguments, Options &out) {
    out = Options{};
    bool only_names = false;
    bool share_given = false;
    std::span<const char *const> rest = arguments;
    while (!rest.empty()) {
        const std::string_view argument = rest.front();
        std::string error;
        if (only_names || !argument.starts_with('-')) {
            error = add_interface(out, argument);
            rest = rest.subspan(1);
        } else if (argument == "--") {
            only_names = true;
            rest = rest.subspan(1);
        } else {
            share_given = share_given || argument.starts_with("--delay-share");
            error = take_option(rest, out);
        }
        if (!error.empty()) {
            return error;
        }
        if (out.action != Action::kRun) {
            return ""; // help and version need nothing else
        }
    }
    return complete(out, share_given);
}

std::string options_help() {
    constexpr size_t kColumn = 35;
    std::string out;
    for (const OptionRow &row : kRows) {
        std::string line = std::string("  ") + row.name;
        if (row.value != nullptr) {
            line += std::string(" ") + row.value;
        }
        line.resize(std::max(kColumn, line.size() + 1), ' ');
        for (const char *at = row.help; *at != '\0'; at++) {
            line += *at;
            line += *at == '\n' ? std::string(kColumn, ' ') : "";
        }
        out += line + "\n";
    }
    return out;
}

} // namespace card
