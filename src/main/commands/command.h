// command.h - one command of the tool: what the command line says and how it ends.
#ifndef MAIN_COMMANDS_COMMAND_H
#define MAIN_COMMANDS_COMMAND_H

#include <cstddef>
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

#endif
