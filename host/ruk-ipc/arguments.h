// arguments.h - the command line of ruk-ipc.
#ifndef RUK_IPC_ARGUMENTS_H
#define RUK_IPC_ARGUMENTS_H

#include "commands.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace ipc {

enum class Action : uint8_t { kRun, kHelp, kVersion };

constexpr uint32_t kLongestTransfer = 0x1000000; // bytes of one read or write command

struct Arguments {
    Action action = Action::kRun;
    const CommandRow *command = nullptr;
    bool json = false;
    bool dry_run = false;
    uint32_t timeout_ms = 0; // 0: the command's own
    uint8_t module = 0;      // own module id; 0: any that is free
    uint8_t target_id = 0xFE;
    uint8_t slot = 1;
    uint16_t model = 0;
    std::string input;
    std::string output;

    uint32_t addr = 0;
    uint32_t len = 0; // bytes to read
    std::vector<uint8_t> bytes;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t kind = 0;
    std::string file; // absolute: the service has another working directory
    std::string text = "Hello from ruk-ipc";
};

/**
 * Read the arguments (without the program's name). Returns an empty text, or a message that says
 * which argument is wrong and what was expected.
 */
std::string parse_arguments(std::span<const char *const> words, Arguments &out);

/** Whether a JSON object is wanted, told before the arguments are known to be right. */
bool wants_json(std::span<const char *const> words);

/** The options with their meanings, for --help. */
std::string options_help();

} // namespace ipc

#endif
