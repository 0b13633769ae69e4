// throughput_writes.h - the throughput tests that take the place of a write.
#ifndef MAIN_COMMANDS_THROUGHPUT_WRITES_H
#define MAIN_COMMANDS_THROUGHPUT_WRITES_H

#include "main/commands/command.h"

#include <optional>

/** What tells the three write commands apart. */
struct WriteForm {
    void (*send)(const CommandLine &line, std::span<const uint8_t> data);
    bool posts;        // sem_test is posted for what has ended
    bool is_pipelined; // a send returns before the card has answered
};

/** Run the test that the command line names. Nothing: it names none, so this is an ordinary write.
 */
std::optional<Outcome> run_write_test(const CommandLine &line, const WriteForm &form);

#endif
