#include "json.h"

#include "ap_msg/message_layout.h"
#include "exchange.h"
#include "fields.h"

#include <cstdio>

namespace ipc {

namespace {

// Length of the character at the front, or 0 when that is no UTF-8. The second byte of the longest
// and the shortest forms has a narrower range, so that every character has one form only.
size_t utf8_length(std::string_view text) {
    struct Form {
        uint8_t first, last, second_first, second_last, length;
    };
    static constexpr Form kForms[] = {
        {0x00, 0x7F, 0x00, 0x00, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
        {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
        {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
    };
    const auto at = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
    for (const Form &form : kForms) {
        if (at(0) < form.first || at(0) > form.last) {
            continue;
        }
        bool fits = text.size() >= form.length;
        for (size_t i = 1; fits && i < form.length; i++) {
            fits = at(i) >= (i == 1 ? form.second_first : 0x80) &&
                   at(i) <= (i == 1 ? form.second_last : 0xBF);
        }
        return fits ? form.length : 0;
    }
    return 0;
}

std::string escaped(char c) {
    if (c == '"' || c == '\\') {
        return {'\\', c};
    }
    if (static_cast<unsigned char>(c) >= ' ' && c != '\x7f') {
        return {c};
    }
    char text[sizeof "\\u0000"];
    (void)std::snprintf(text, sizeof text, "\\u%04x", static_cast<unsigned>(c));
    return text;
}

std::string hex_string(std::span<const uint8_t> bytes) {
    constexpr const char *kDigits = "0123456789abcdef";
    std::string text = "\"";
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text + "\"";
}

// Members of an object; a value is JSON already.
void add(std::string &members, const char *name, const std::string &value) {
    members += members.empty() ? "\"" : ",\"";
    members += name;
    members += "\":";
    members += value;
}

void add_number(std::string &members, const char *name, uint32_t value) {
    add(members, name, std::to_string(value));
}

std::string message_object(const Request &request) {
    std::string members;
    for (const NamedField &row : kFields) {
        add_number(members, row.name, load_le(request.bytes.data(), row.field));
    }
    add_number(members, "length", static_cast<uint32_t>(request.bytes.size()));
    add(members, "reply", request.reply == ReplyKind::kNone ? "false" : "true");
    add(members, "bytes", hex_string(request.bytes));
    return "{" + members + "}";
}

std::string message_array(const std::vector<Request> &requests) {
    std::string text = "[";
    for (const Request &request : requests) {
        text += text.size() > 1 ? "," : "";
        text += message_object(request);
    }
    return text + "]";
}

// What was asked.
void add_question(std::string &members, const Arguments &arguments, const Outcome &outcome) {
    const CommandRow &command = *arguments.command;
    add_number(members, "service", service_address());
    if (command.has_card) {
        add_number(members, "slot", arguments.slot);
        add_number(members, "model", arguments.model);
    }
    if (command.has_address) {
        add_number(members, "address", arguments.addr);
    }
    if (command.has_input || command.has_output) {
        add_number(members, "length", outcome.total);
    }
    if (command.code == message::kCodeUpdate) {
        add_number(members, "kind", arguments.kind);
    }
    if (arguments.width != 0) {
        add_number(members, "width", arguments.width);
        add_number(members, "height", arguments.height);
    }
    if (!arguments.file.empty()) {
        add(members, "file", json_string(arguments.file));
    }
}

// What came of it.
void add_answer(std::string &members, const Arguments &arguments, const Outcome &outcome) {
    const CommandRow &command = *arguments.command;
    if (outcome.result) {
        add(members, "result", std::to_string(static_cast<int32_t>(*outcome.result)));
    }
    if (outcome.seq) {
        add_number(members, "seq", *outcome.seq);
        add_number(members, "requests", outcome.requests);
    }
    if (command.has_input || command.has_output) {
        add_number(members, "done", outcome.done);
    }
    if (outcome.status == Status::kDryRun) {
        add(members, "messages", message_array(outcome.dry_run));
    } else if (outcome.status == Status::kOk && command.reply == ReplyKind::kGreeting) {
        add(members, "text", json_string(outcome.greeting));
    } else if (outcome.status == Status::kOk && command.reply == ReplyKind::kData) {
        const bool saved = !arguments.output.empty();
        add(members, saved ? "output" : "data",
            saved ? json_string(arguments.output) : hex_string(outcome.data));
    }
}

} // namespace

std::string json_string(std::string_view text) {
    std::string literal = "\"";
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 1) {
            literal += escaped(text.front());
        } else if (length == 0) {
            literal += "\\ufffd";
        } else {
            literal += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return literal + "\"";
}

std::string json_object(const Arguments &arguments, const Outcome &outcome) {
    std::string members;
    if (arguments.command != nullptr) {
        add(members, "command", json_string(arguments.command->word));
    }
    add(members, "status", json_string(status_name(outcome.status)));
    if (arguments.command != nullptr && outcome.status != Status::kUsage) {
        add_question(members, arguments, outcome);
        add_answer(members, arguments, outcome);
    }
    if (!outcome.message.empty()) {
        add(members, "message", json_string(outcome.message));
    }
    return "{" + members + "}\n";
}

} // namespace ipc
