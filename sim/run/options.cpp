#include "run/options.h"

#include <net/if.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>

#include "run/help.h"
#include "run/orders.h"
#include "run/parse.h"

namespace card {

namespace {

constexpr uint32_t kMax8 = std::numeric_limits<uint8_t>::max();
constexpr uint32_t kMax16 = std::numeric_limits<uint16_t>::max();

constexpr const char *kWantRange = "ADDR, ADDR-ADDR or any, perhaps followed by xN";
constexpr const char *kWantNth = "FAULT:N[,N...] with FAULT drop_request, drop, corrupt, "
                                 "duplicate, delay, reorder or noise and N from 1";
constexpr const char *kWantField =
    "NAME or NAME:STATUS with NAME total_files_size, files_recv_len, total_files_count, "
    "current_file_size, v, device_type or card_modelid and STATUS hexadecimal 1 to ff";
constexpr const char *kWantBlock = "N or N:STATUS with N from 1 and STATUS hexadecimal 1 to ff";
constexpr const char *kWantDdr2Picture =
    "MEM:ADDR:WIDTHxHEIGHT with MEM 0 or 1, all of it within the 4 GiB of the memory and not "
    "larger than 64 MiB as a picture";

std::string quoted(const std::string &text) {
    return "'" + text + "'";
}

// What every option with a value has, apart from what is done with the value.
struct OptionText {
    const char *name;
    const char *value;    // what --help calls it
    std::string expected; // what a wrong value should have been
    const char *help;
};

/**
 * Add an option. `read` makes something of the text, or nothing when it is wrong; `store` takes it.
 * Values are taken in the order of the command line, because the first rule that holds counts.
 */
template <class Read, class Store>
void add(CLI::App &app, const OptionText &option, Read read, Store store) {
    const auto take = [=](const std::string &text) {
        const auto value = read(text);
        if (!value) {
            throw CLI::ValidationError(option.name, quoted(text) + ": expected " + option.expected);
        }
        store(*value);
    };
    app.add_option_function<std::string>(option.name, take, option.help)
        ->type_name(option.value)
        ->trigger_on_parse();
}

template <class Value>
auto to_end_of(std::vector<Value> &list) {
    return [&list](const Value &value) { list.push_back(value); };
}

// Hexadecimal numbers as wide as what they go to.
template <class Value>
void add_hex(CLI::App &app, const char *name, std::optional<Value> &out, const char *help) {
    constexpr uint32_t kMax = std::numeric_limits<Value>::max();
    constexpr const char *kWant = kMax == kMax8 ? "hexadecimal 0 to ff" : "hexadecimal 0 to ffff";
    add(
        app, {name, "HEX", kWant, help}, [](const auto &text) { return parse_hex(text, kMax); },
        [&out](uint32_t value) { out = static_cast<Value>(value); });
}

void add_path(CLI::App &app, const char *name, const char *value, std::string &out,
              const char *help) {
    const auto read = [](const std::string &text) {
        return text.empty() ? std::nullopt : std::optional(text);
    };
    add(app, {name, value, "a name", help}, read, [&out](const std::string &path) { out = path; });
}

void add_rate(CLI::App &app, const char *name, uint32_t &out, const char *help) {
    add(app, {name, "P", "a percentage from 0 to 100", help}, parse_percent,
        [&out](uint32_t ppm) { out = ppm; });
}

void add_card_options(CLI::App &app, Options &out) {
    app.option_defaults()->group("Card");
    add_hex(app, "--model", out.identity.model,
            "answer only for this model (default: every model)");
    add_hex(app, "--slot", out.identity.slot, "answer only for this slot (default: every slot)");
    add(app,
        {"--memory-load", "FILE[@ADDR]", "FILE or FILE@ADDR",
         "load FILE to ADDR (default 0) before the start; may be repeated"},
        parse_load, to_end_of(out.loads));
    add(app,
        {"--memory-save", "FILE[@ADDR:LEN]", "FILE or FILE@ADDR:LEN within 4 GiB",
         "at the end save LEN bytes from ADDR, or without them everything\n"
         "from address 0 to the last page written; may be repeated"},
        parse_save, to_end_of(out.saves));
    add_path(app, "--picture-dir", "DIR", out.picture_directory,
             "save the pictures that the picture port receives in DIR, as\n"
             "picture-001.png and so on; files that exist are kept");
    add(app,
        {"--ddr2-picture", "MEM:ADDR:WIDTHxHEIGHT", kWantDdr2Picture,
         "at the end save a picture of this size from DDR2 memory MEM (0 or\n"
         "1) in DIR as ddr2-MEM-ADDR.png; ADDR counts 8 bytes, as in the\n"
         "control record; may be repeated"},
        parse_ddr2_picture, to_end_of(out.ddr2_pictures));
    add_path(app, "--firmware-dir", "DIR", out.firmware_directory,
             "save the firmware that comes in, without its head, in DIR as\n"
             "firmware-001.bin and so on; files that exist are kept");
    app.get_option("--ddr2-picture")->needs("--picture-dir");
}

void add_random_faults(CLI::App &app, FaultConfig &out) {
    app.option_defaults()->group("Random faults");
    const auto rate = [&out](Fault fault) -> uint32_t & {
        return out.rates_ppm[static_cast<size_t>(fault)];
    };
    add(
        app, {"--seed", "N", "a number", "start of the random faults (default 1)"},
        [](const auto &text) { return parse_count(text, std::numeric_limits<uint64_t>::max()); },
        [&out](uint64_t seed) { out.seed = seed; });
    add_rate(app, "--drop", rate(Fault::kDrop), "lose P percent of the replies");
    add_rate(app, "--drop-requests", rate(Fault::kDropRequest),
             "treat P percent of the requests as lost: nothing is carried out");
    add_rate(app, "--corrupt", rate(Fault::kCorrupt),
             "spoil the checksum of P percent of the replies");
    add_rate(app, "--duplicate", rate(Fault::kDuplicate), "send P percent of the replies twice");
    add(app,
        {"--delay", "MIN[:MAX]", "MIN or MIN:MAX, each a number with us, ms or s, at most an hour",
         "send replies after a time between MIN and MAX; plain numbers are\n"
         "microseconds, us, ms and s may be added; delayed replies can\n"
         "overtake each other"},
        parse_delay, [&out](const auto &delay) {
            out.delay_min_us = delay.first;
            out.delay_max_us = delay.second;
        });
    add_rate(app, "--delay-share", rate(Fault::kDelay),
             "delay only P percent of the replies (default 100 with --delay)");
    add_rate(app, "--reorder", rate(Fault::kReorder),
             "hold P percent of the replies back until the next reply on the\n"
             "same interface has gone, at most 20 ms");
    add_rate(app, "--noise", rate(Fault::kNoise),
             "send an unrelated frame before the answer to P percent of the\n"
             "requests: other addresses and types, wrong markers, cut short");
    add(app,
        {"--nth", "FAULT:N[,N...]", kWantNth,
         "commit a fault on exactly the N-th chance, counted from 1: FAULT is\n"
         "drop, corrupt, duplicate, delay or reorder (chances: the replies)\n"
         "or drop_request or noise (chances: the requests); may be repeated"},
        parse_nth, [&out](const std::vector<NthOrder> &orders) {
            out.nth.insert(out.nth.end(), orders.begin(), orders.end());
        });
}

void add_ordered_faults(CLI::App &app, Options &out) {
    FaultConfig &faults = out.faults;
    const std::string error =
        std::string("STATUS@RANGE with STATUS hexadecimal 1 to ff and RANGE ") + kWantRange;
    const std::string lie =
        std::string("LEN@RANGE with LEN a length up to 65535 or +N and RANGE ") + kWantRange;
    app.option_defaults()->group("Faults for certain requests");
    add(app,
        {"--error", "STATUS@RANGE", error,
         "refuse requests with this status; a refused read carries no data"},
        parse_error, to_end_of(faults.rules));
    add(app,
        {"--error-with-data", "STATUS@RANGE", error,
         "the same, but a refused read carries its data all the same"},
        parse_error, [&faults](AddressRule rule) {
            rule.with_data = true;
            faults.rules.push_back(rule);
        });
    add(app,
        {"--refuse-field", "NAME[:STATUS]", kWantField,
         "refuse this field of every firmware transfer, with status 01 unless\n"
         "another one is given; may be repeated"},
        parse_field_refusal, to_end_of(out.firmware_refusals));
    add(app,
        {"--refuse-block", "N[:STATUS]", kWantBlock,
         "refuse the N-th block of every firmware transfer, likewise, as often\n"
         "as it comes; counted from 1; may be repeated"},
        parse_block_refusal, to_end_of(out.firmware_refusals));
    add(app, {"--silence", "RANGE", kWantRange, "carry requests out, but do not answer them"},
        parse_silence, to_end_of(faults.rules));
    add(app,
        {"--lie-length", "LEN@RANGE", lie,
         "let replies say and carry LEN bytes, or with +N that many more than\n"
         "asked; beyond 1400 only the length field says so"},
        parse_lie, to_end_of(faults.rules));
    add(app,
        {"--lie-field", "LEN@RANGE", lie,
         "the same for the length field alone: the payload stays honest"},
        parse_lie, [&faults](AddressRule rule) {
            rule.lie.field_only = true;
            faults.rules.push_back(rule);
        });
}

void add_fixed_faults(CLI::App &app, FaultConfig &out) {
    app.option_defaults()->group("Faults in every reply");
    add_hex(app, "--ack-code", out.ack_code,
            "code of acknowledgements (default 11; cards also use 10)");
    add_hex(app, "--read-code", out.read_code, "code of read replies (default 00)");
    add(
        app,
        {"--type", "HEX", "hexadecimal 0 to ffff",
         "type field of replies, as on the wire (default 0700)"},
        [](const auto &text) { return parse_hex(text, kMax16); },
        [&out](uint32_t typed) { // in the order of the wire, where the low byte comes first
            out.reply_type = static_cast<uint16_t>((typed >> 8) | (typed << 8));
        });
}

void add_reports(CLI::App &app, Options &out) {
    app.option_defaults()->group("What it tells");
    add_path(app, "--counters", "FILE", out.counters_path,
             "write the counters to FILE instead of standard output");
    app.add_flag("--trace", out.trace, "print one line per frame on standard output")
        ->disable_flag_override();
    add_path(app, "--trace-file", "FILE", out.trace_path, "write these lines to FILE");
    app.set_help_flag("-h,--help", "print this text");
    app.set_version_flag("--version", "ruk-card " RUK_CARD_VERSION, "print the version");
}

void add_interfaces(CLI::App &app, Options &out) {
    app.add_option("IFNAME", out.interfaces, "the interfaces to answer on")
        ->option_text("...")
        ->required();
}

void check_interfaces(const std::vector<std::string> &names) {
    for (auto name = names.begin(); name != names.end(); ++name) {
        const auto refuse = [&name](const char *reason) {
            throw CLI::ValidationError("IFNAME", quoted(*name) + ": " + reason);
        };
        if (name->empty() || name->size() >= IFNAMSIZ) {
            refuse("expected a name of 1 to 15 characters");
        }
        if (std::find(names.begin(), name, *name) != name) {
            refuse("given twice");
        }
        if (static_cast<size_t>(name - names.begin()) == kMaxInterfaces) {
            refuse("more than 16 interfaces");
        }
    }
}

// What only the options together can tell.
void complete(const CLI::App &app, Options &out) {
    FaultConfig &faults = out.faults;
    uint32_t &share = faults.rates_ppm[static_cast<size_t>(Fault::kDelay)];
    const bool counted = std::ranges::any_of(
        faults.nth, [](const NthOrder &order) { return order.fault == Fault::kDelay; });
    if (faults.delay_max_us == 0 && (share > 0 || counted)) {
        throw CLI::RequiresError("--delay-share or --nth delay", "--delay with a time above 0");
    }
    if (faults.delay_max_us > 0 && app.count("--delay-share") == 0 && !counted) {
        share = kAlways;
    }
    out.trace = out.trace || !out.trace_path.empty();
    check_interfaces(out.interfaces);
}

// The arguments from last to first, as the library takes them. It would look for the value of
// "--name=" in the next argument: here the empty value becomes an argument of its own.
std::vector<std::string> reversed(std::span<const char *const> arguments) {
    std::vector<std::string> out;
    for (const std::string_view argument : arguments) {
        const bool empty_value = argument.starts_with("--") && argument.ends_with('=');
        out.emplace_back(argument.substr(0, argument.size() - (empty_value ? 1 : 0)));
        if (empty_value) {
            out.emplace_back();
        }
    }
    std::ranges::reverse(out);
    return out;
}

} // namespace

std::string parse_options(std::span<const char *const> arguments, Options &out) {
    out = Options{};
    CLI::App app(kIntroduction, "ruk-card");
    constexpr size_t kColumn = 37;
    app.get_formatter()->column_width(kColumn);
    app.footer(help_footer);
    add_interfaces(app, out);
    add_card_options(app, out);
    add_random_faults(app, out.faults);
    add_ordered_faults(app, out);
    add_fixed_faults(app, out.faults);
    add_reports(app, out);
    try {
        app.parse(reversed(arguments));
        complete(app, out);
    } catch (const CLI::CallForHelp &) {
        out.text = app.help();
    } catch (const CLI::CallForVersion &version) {
        out.text = std::string(version.what()) + "\n";
    } catch (const CLI::ParseError &error) {
        return error.what();
    }
    return "";
}

} // namespace card
