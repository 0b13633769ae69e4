#include "help.h"

#include "arguments.h"
#include "commands.h"

namespace ipc {

namespace {

constexpr const char *kIntroduction = R"(Usage: ruk-ipc [OPTION]... COMMAND [ARGUMENT]...

Ask the request service of this board (rukd) to read and write the registers and the memory of an
FPGA card, and tell by the exit status what is known of it.

Commands:
)";

constexpr const char *kOptions = R"(
Options, before or behind the command (--name VALUE or --name=VALUE; "--" ends them):
)";

constexpr const char *kRest = R"(
Values:
  ADDR, BYTE, KIND, model, slot and ids are hexadecimal, with or without 0x.
  LEN, WIDTH, HEIGHT and MS are decimal, or hexadecimal with 0x.
  Transfers of more than 1400 bytes are split into several requests at rising addresses.
  The service opens FILE of put-picture, get-picture and update; --input and --output are opened
  here.

Environment:
  APIPC_DIR    directory of the message sockets (/run/apipc); the same as the service's
  APCARD_SLOT  slot of the card that this runs on (0); the same as the service's

Exit status:
  0  done; of write-ack: the card has answered, whatever it said; of write, put-picture and
     get-picture: handed over, as the service sends no reply
  1  the service reports a failure: the card did not answer or refused; or a file or the result
     could not be read or written
  2  wrong argument
  3  no service there, or it did not answer

Examples:
  ruk-ipc --slot 3 read 7040 16
  ruk-ipc --slot 3 write-ack 10007040 01 02 0xff
  ruk-ipc --slot 3 read 40000 4000 --output block.bin
  ruk-ipc --json hello
  ruk-ipc --dry-run write 7040 1
)";

} // namespace

std::string help_text() {
    std::string text = kIntroduction;
    for (const CommandRow &row : commands()) {
        text += std::string("  ") + row.synopsis + "\n      " + row.meaning + "\n";
    }
    return text + kOptions + options_help() + kRest;
}

std::string version_text() {
    return "ruk-ipc " RUK_IPC_VERSION "\n";
}

} // namespace ipc
