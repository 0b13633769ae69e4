// command.h - one command of the tool: what the command line says and how it ends.
#ifndef MAIN_COMMAND_H
#define MAIN_COMMAND_H

#include "eth_raw/frame_layout.h"

#include <cstdint>
#include <span>

/** The values that every command takes, and all words of the command line. */
struct CommandLine {
    std::span<char *> argv; // program name first
    int index;              // interface
    uint16_t model;
    uint8_t slot;
    uint32_t addr;
};

/** Positions on the command line. */
constexpr size_t kArgIndex = 1;
constexpr size_t kArgCommand = 2;
constexpr size_t kArgModel = 3;
constexpr size_t kArgSlot = 4;
constexpr size_t kArgAddr = 5;
constexpr size_t kArgOwn = 6; // the command's own arguments begin here

enum class Outcome {
    kDone,      // the normal shut-down follows; whether the card did what it should is not judged
    kAbandoned, // the command could not run: link down, exit status -1
};

Outcome run_read(const CommandLine &line);
Outcome run_readw(const CommandLine &line);
Outcome run_write(const CommandLine &line);
Outcome run_writea(const CommandLine &line);
Outcome run_writeaw(const CommandLine &line);
Outcome run_writepic(const CommandLine &line);
Outcome run_update(const CommandLine &line);

/** Numbers as the command line writes them; a word that is no number gives 0. */
uint32_t parse_hex(const char *word);
uint32_t parse_decimal(const char *word);
int parse_index(const char *word);

constexpr int32_t kWaitTicks = 6;                // 180 ms, three times
constexpr uint32_t kCommandBuffer = kMaxPayload; // bytes: the most that one frame carries

/** How many bytes a waiting read has brought: of a reply that is too long, none were copied. */
constexpr uint32_t bytes_brought(uint32_t received) {
    return received <= kCommandBuffer ? received : 0;
}

#endif
