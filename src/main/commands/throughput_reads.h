// throughput_reads.h - the throughput tests that take the place of a read.
#ifndef MAIN_COMMANDS_THROUGHPUT_READS_H
#define MAIN_COMMANDS_THROUGHPUT_READS_H

#include "main/commands/command.h"

#include <optional>

/** What tells the two read commands apart. */
struct ReadForm {
    /** Returns the bytes that have come until then; posts sem_test for what has ended. */
    uint32_t (*request)(const CommandLine &line, uint32_t len, uint8_t *buf);
    bool is_pipelined; // a request returns before the card has answered
};

/** Run the test that the command line names. Nothing: it names none, so this is an ordinary read.
 */
std::optional<Outcome> run_read_test(const CommandLine &line, const ReadForm &form);

#endif
