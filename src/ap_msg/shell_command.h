// shell_command.h - shell command lines with a file name in them.
#ifndef AP_MSG_SHELL_COMMAND_H
#define AP_MSG_SHELL_COMMAND_H

#include <string>
#include <string_view>

/**
 * A command line around a file name. A name of letters, digits and . _ / + - = @ % , : stands in it
 * as it is; any other is quoted, so that the shell takes it for one word and nothing in it for a
 * command.
 */
std::string shell_command(std::string_view before, std::string_view name,
                          std::string_view after = {});

#endif
