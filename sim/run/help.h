// help.h - what --help prints before and behind the options.
#ifndef CARD_HELP_H
#define CARD_HELP_H

#include <string>

#include "faults/counters.h"

namespace card {

inline constexpr const char *kIntroduction =
    R"(Simulate an FPGA card on one or more network interfaces: answer raw message requests (reads,
acknowledged writes, plain writes) and bus block requests from a sparse memory of 4 GiB, and take
pictures into two DDR2 memories and through a picture port, and firmware. One process is one card
with one memory of each kind, however many interfaces it listens on. Prints "ready" and the
interface names as soon as it listens; ends on SIGINT, SIGTERM or SIGHUP. Needs the right to open
raw sockets (CAP_NET_RAW).
)";

inline constexpr const char *kValues = R"(Values:
  Options take them as --name VALUE or --name=VALUE; "--" ends the options.
  Addresses, model, slot, codes, status and type are hexadecimal, with or without 0x.
  Lengths and counts are decimal, or hexadecimal with 0x. Percentages may have decimals (0.5).
  RANGE is ADDR, ADDR-ADDR (both ends included) or "any", compared with the request's first address.
  With xN behind it, it holds for the next N requests only: 7040x2, a0000-a00ffx1, anyx3.
  An address of one digit wants its 0x before an x: 0x0x3.
  Rules for addresses may be repeated; the first one that still holds is taken. Silence is looked
  at before errors. The same seed, options and requests give the same faults.

Examples:
  ruk-card card0                                  a card that does everything right
  ruk-card --slot 3 --trace card0 card1           one card on two links, every frame shown
  ruk-card --drop 5 --corrupt 2 --seed 7 card0    a bad link
  ruk-card --nth drop:1 card0                     lose exactly the first reply
  ruk-card --silence 7040x1 card0                 the same for register 0x7040 only
  ruk-card --error 02@a0000-a00ffx3 card0         refuse three requests, then work
  ruk-card --delay 1ms:20ms card0                 late answers, some overtaking others
  ruk-card --memory-load boot.bin@18000000 --memory-save after.bin@18000000:4096 card0
  ruk-card --picture-dir pics --ddr2-picture 0:0:640x480 card0 card1   pictures to look at
  ruk-card --firmware-dir got card0               firmware to compare with what was sent
  ruk-card --refuse-block 3:07 card0              refuse the third block of every transfer

Signals:
  SIGUSR1 writes the counters and goes on; SIGINT, SIGTERM and SIGHUP save memory and DDR2
  pictures, write the counters and end. Replies that still wait for their time are then not sent.

Counters, one JSON object on one line:
)";

inline constexpr const char *kStatuses = R"(
Exit status:
  0  ended by a signal, everything saved
  1  could not work: interface missing, no rights, file not readable or writable
  2  wrong argument, or a directory for pictures or firmware in which no files can be made)";

inline std::string help_footer() {
    return kValues + counters_help() + kStatuses;
}

} // namespace card

#endif
