// shell_command.h - shell command lines with a file name in them.
#ifndef AP_MSG_FIRMWARE_SHELL_COMMAND_H
#define AP_MSG_FIRMWARE_SHELL_COMMAND_H

#include "base/owners.h"

#include <string_view>

/**
 * A command line around a file name. A name of letters, digits and . _ / + - = @ % , : stands in it
 * as it is; any other is quoted, so that the shell takes it for one word and nothing in it for a
 * command.
 */
class ShellCommand {
public:
    ShellCommand(std::string_view before, std::string_view name, std::string_view after = {});
    /** The line; null when there is no memory for it. */
    [[nodiscard]] const char *line() const;
    /** Run it, as my_system; -1 when there is no memory for it (logged). */
    [[nodiscard]] int run() const;

private:
    HeapBytes line_;
};

#endif
