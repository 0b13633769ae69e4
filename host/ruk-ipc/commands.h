// commands.h - what can be asked of the service: one row per command.
#ifndef RUK_IPC_COMMANDS_H
#define RUK_IPC_COMMANDS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace ipc {

struct Arguments;

/** What the service sends back when it has carried a request out. */
enum class ReplyKind : uint8_t {
    kNone,     // nothing, ever
    kHeader,   // the request's header with the result
    kData,     // the same, and the bytes read
    kUpdate,   // the request's heads with the result, and the kind of update
    kGreeting, // a message of its own that echoes nothing of the request
};

enum class Repeat : uint8_t { kOnce, kOptional, kAny };

/** One argument behind a command word. */
struct ArgumentRow {
    const char *name;
    Repeat repeat;
    const char *wanted; // completes "NAME 'text': not ..."
    bool (*set)(Arguments &arguments, std::string_view text);
};

struct CommandRow {
    const char *word;
    uint8_t code;
    ReplyKind reply;
    uint32_t timeout_ms; // for each request, unless the command line says otherwise
    std::span<const ArgumentRow> arguments;
    bool has_card;    // goes to a card, so slot and model matter
    bool has_address; // the request's address field is used
    bool has_input;   // takes its bytes from --input too
    bool has_output;  // saves its bytes with --output
    const char *synopsis;
    const char *meaning;
};

/** All commands, in the order of the help text. */
std::span<const CommandRow> commands();

/** The row of a command word, or null. */
const CommandRow *find_command(std::string_view word);

} // namespace ipc

#endif
