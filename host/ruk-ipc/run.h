// run.h - carries a command out: its requests one after the other, up to the first that fails.
#ifndef RUK_IPC_RUN_H
#define RUK_IPC_RUN_H

#include "arguments.h"
#include "request.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ipc {

enum class Status : uint8_t {
    kOk,         // the service says that it was done
    kAnswered,   // the card answered; what, the service never says
    kHandedOver, // sent; the service never says what became of it
    kDryRun,     // shown, not sent
    kRefused,    // the card or the service said no
    kFailed,     // a file or the result could not be read or written, or a reply made no sense
    kUsage,      // the command line is wrong
    kNoAnswer,   // no reply, or no service
};

/** The exit status that belongs to it. */
int exit_status(Status status);

/** Its name in JSON output. */
const char *status_name(Status status);

struct Outcome {
    Status status = Status::kOk;
    std::string message;            // what went wrong, or what else there is to know; may be empty
    std::optional<uint32_t> result; // of the last reply
    std::optional<uint16_t> seq;    // of the last request that was sent
    uint32_t requests = 0;          // sent
    uint32_t total = 0;             // bytes to read or write
    uint32_t done = 0;              // bytes read, answered or handed over
    std::vector<uint8_t> data;      // bytes read
    std::string greeting;
    std::vector<Request> dry_run; // what would have been sent
};

Outcome run(const Arguments &arguments);

/** What is asked, in words: "read of 4 bytes at 0x00001000 from slot 1, model 0x0". */
std::string describe(const Arguments &arguments, uint32_t addr, uint32_t len);

} // namespace ipc

#endif
