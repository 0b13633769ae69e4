#include "arguments.h"

#include "ap_msg/message_layout.h"
#include "numbers.h"
#include "picture.h"
#include "request.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <unistd.h>

namespace ipc {

namespace {

constexpr uint32_t kMax8 = 0xFF;
constexpr uint32_t kMax16 = 0xFFFF;
constexpr uint32_t kLongestWaitMs = 86400000; // a day
constexpr std::string_view kDashes = "--";

struct OptionRow {
    const char *name;
    const char *value;  // its name in the help; null: the option takes none
    const char *wanted; // completes "--name 'text': not ..."
    bool (*set)(Arguments &arguments, std::string_view text);
    const char *meaning;
};

bool set_slot(Arguments &arguments, std::string_view text) {
    const auto value = parse_hex(text, kMax8);
    arguments.slot = static_cast<uint8_t>(value.value_or(0));
    return value.has_value();
}

bool set_model(Arguments &arguments, std::string_view text) {
    const auto value = parse_hex(text, kMax16);
    arguments.model = static_cast<uint16_t>(value.value_or(0));
    return value.has_value();
}

bool set_target_id(Arguments &arguments, std::string_view text) {
    const auto value = parse_hex(text, kMax8);
    arguments.target_id = static_cast<uint8_t>(value.value_or(0));
    return value.has_value();
}

// The service's own id cannot be had, and its two neighbours belong to modules of the board.
bool set_module(Arguments &arguments, std::string_view text) {
    const auto value = parse_hex(text, kMax8);
    if (!value || *value == 0) {
        return false;
    }
    for (const uint32_t taken : {message::kTestModule, message::kOwnModule, message::kPeerModule}) {
        if (*value == module_of(taken)) {
            return false;
        }
    }
    arguments.module = static_cast<uint8_t>(*value);
    return true;
}

bool set_timeout(Arguments &arguments, std::string_view text) {
    const auto value = parse_count(text, 1, kLongestWaitMs);
    arguments.timeout_ms = value.value_or(0);
    return value.has_value();
}

bool set_input(Arguments &arguments, std::string_view text) {
    arguments.input = text;
    return !text.empty();
}

bool set_output(Arguments &arguments, std::string_view text) {
    arguments.output = text;
    return !text.empty();
}

bool set_json(Arguments &arguments, std::string_view /*none*/) {
    arguments.json = true;
    return true;
}

bool set_dry_run(Arguments &arguments, std::string_view /*none*/) {
    arguments.dry_run = true;
    return true;
}

bool set_help(Arguments &arguments, std::string_view /*none*/) {
    arguments.action = Action::kHelp;
    return true;
}

bool set_version(Arguments &arguments, std::string_view /*none*/) {
    arguments.action = Action::kVersion;
    return true;
}

constexpr OptionRow kOptions[] = {
    {"slot", "S", "0 to ff, hexadecimal", set_slot, "slot of the target card on the link (1)"},
    {"model", "M", "0 to ffff, hexadecimal", set_model, "model of the target card (0)"},
    {"id", "ID", "0 to ff, hexadecimal", set_target_id, "target id of the request (fe)"},
    {"timeout", "MS", "1 to 86400000 ms", set_timeout,
     "wait so long for each reply (3000; update 600000)"},
    {"input", "FILE", "a file name", set_input, "write the bytes of FILE"},
    {"output", "FILE", "a file name", set_output, "save the bytes read in FILE, all or none"},
    {"module", "ID", "1 to ff, hexadecimal, without 3a, 3b and 3c", set_module,
     "own module id (a free one of c0 to ef)"},
    {"json", nullptr, nullptr, set_json, "print one JSON object"},
    {"dry-run", nullptr, nullptr, set_dry_run, "show what would be sent and send nothing"},
    {"help", nullptr, nullptr, set_help, "print this help"},
    {"version", nullptr, nullptr, set_version, "print the version"},
};

std::string quoted(std::string_view text) {
    return std::string("'").append(text).append("'");
}

const OptionRow *find_option(std::string_view name) {
    for (const OptionRow &row : kOptions) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

// The words of a command line that have not been looked at.
struct Words {
    std::span<const char *const> left;

    bool take(std::string_view &word) {
        if (left.empty()) {
            return false;
        }
        word = left.front();
        left = left.subspan(1);
        return true;
    }
};

// The option in `word`; its value comes from behind '=' or from the next word.
std::string parse_option(std::string_view word, Words &words, Arguments &out) {
    const size_t equals = word.find('=');
    const std::string_view full_name = word.substr(0, equals);
    const OptionRow *row =
        word.starts_with(kDashes) ? find_option(full_name.substr(kDashes.size())) : nullptr;
    if (row == nullptr) {
        return "unknown option " + quoted(full_name);
    }
    std::string_view value;
    if (row->value == nullptr) {
        if (equals != std::string_view::npos) {
            return std::string(full_name) + " takes no value";
        }
    } else if (equals != std::string_view::npos) {
        value = word.substr(equals + 1);
    } else if (!words.take(value)) {
        return std::string(full_name) + " needs a value: " + row->value;
    }
    if (!row->set(out, value)) {
        return std::string(full_name) + " " + quoted(value) + ": not " + row->wanted;
    }
    return {};
}

// Options are taken out; what is left are the command word and its arguments.
std::string take_options(Words words, Arguments &out, std::vector<std::string_view> &others) {
    std::string_view word;
    while (words.take(word)) {
        if (word == kDashes) {
            others.insert(others.end(), words.left.begin(), words.left.end());
            return {};
        }
        if (word.size() < 2 || word[0] != '-') {
            others.push_back(word);
            continue;
        }
        if (std::string wrong = parse_option(word, words, out); !wrong.empty()) {
            return wrong;
        }
    }
    return {};
}

std::string set_argument(const ArgumentRow &row, std::string_view text, Arguments &out) {
    if (row.set(out, text)) {
        return {};
    }
    return std::string(out.command->word) + ": " + row.name + " " + quoted(text) + ": not " +
           row.wanted;
}

std::string parse_command_arguments(std::span<const std::string_view> given, Arguments &out) {
    const std::string command = out.command->word;
    size_t next = 0;
    for (const ArgumentRow &row : out.command->arguments) {
        const size_t wanted = row.repeat == Repeat::kAny ? given.size() - next : 1;
        if (next == given.size() && row.repeat == Repeat::kOnce) {
            return command + ": " + row.name + " is missing: " + out.command->synopsis;
        }
        for (size_t i = 0; i < wanted && next < given.size(); i++) {
            if (std::string wrong = set_argument(row, given[next++], out); !wrong.empty()) {
                return wrong;
            }
        }
    }
    if (next < given.size()) {
        return command + ": " + quoted(given[next]) +
               " is one argument too many: " + out.command->synopsis;
    }
    return {};
}

std::string check_files(const Arguments &arguments) {
    const CommandRow &command = *arguments.command;
    if (!arguments.output.empty() && !command.has_output) {
        return "--output belongs to read, not to " + std::string(command.word);
    }
    if (!arguments.input.empty() && !command.has_input) {
        return "--input belongs to write and write-ack, not to " + std::string(command.word);
    }
    if (command.has_input && arguments.bytes.empty() && arguments.input.empty()) {
        return std::string(command.word) + ": nothing to write: give BYTE... or --input FILE";
    }
    if (command.has_input && !arguments.bytes.empty() && !arguments.input.empty()) {
        return std::string(command.word) + ": BYTE and --input FILE exclude each other";
    }
    return {};
}

std::string make_absolute(std::string &file) {
    if (file.front() == '/') {
        return {};
    }
    char here[PATH_MAX];
    if (getcwd(here, sizeof here) == nullptr) {
        return "FILE " + quoted(file) + ": this directory has no name: " + std::strerror(errno);
    }
    file = std::string(here) + "/" + file;
    return {};
}

std::string check_file_name(Arguments &arguments) {
    if (arguments.file.empty()) {
        return {};
    }
    if (std::string wrong = make_absolute(arguments.file); !wrong.empty()) {
        return wrong;
    }
    const size_t longest = longest_name(*arguments.command);
    if (arguments.file.size() <= longest) {
        return {};
    }
    return std::string(arguments.command->word) + ": FILE " + quoted(arguments.file) + ": " +
           std::to_string(arguments.file.size()) + " bytes, not at most " +
           std::to_string(longest) + " with its directory";
}

} // namespace

std::string parse_arguments(std::span<const char *const> words, Arguments &out) {
    std::vector<std::string_view> others;
    std::string wrong = take_options({words}, out, others);
    if (!wrong.empty() || out.action != Action::kRun) {
        return wrong;
    }
    if (others.empty()) {
        return "no command: read, write, write-ack, put-picture, get-picture, update or hello";
    }
    out.command = find_command(others.front());
    if (out.command == nullptr) {
        return "unknown command " + quoted(others.front());
    }
    wrong = parse_command_arguments(std::span(others).subspan(1), out);
    if (wrong.empty()) {
        wrong = check_files(out);
    }
    if (wrong.empty()) {
        wrong = check_file_name(out);
    }
    if (wrong.empty()) {
        wrong = check_picture_size(*out.command, out.width, out.height);
    }
    if (wrong.empty()) {
        wrong = check_range(*out.command, out.addr, out.len + out.bytes.size());
    }
    return wrong;
}

bool wants_json(std::span<const char *const> words) {
    for (const std::string_view word : words) {
        if (word == kDashes) {
            return false;
        }
        if (word == "--json") {
            return true;
        }
    }
    return false;
}

std::string options_help() {
    constexpr size_t kColumn = 18;
    std::string text;
    for (const OptionRow &row : kOptions) {
        std::string line = std::string("  --") + row.name;
        if (row.value != nullptr) {
            line += std::string(" ") + row.value;
        }
        line.resize(kColumn, ' ');
        text += line + row.meaning + "\n";
    }
    return text;
}

} // namespace ipc
