// source.h - the bytes that a write command sends: from the command line or from a file.
#ifndef MAIN_COMMANDS_SOURCE_H
#define MAIN_COMMANDS_SOURCE_H

#include "base/owners.h"
#include "main/commands/command.h"

/** Gives a frame buffer back to the pool. */
struct FreeFrameBuffer {
    void operator()(uint8_t *buf) const;
};
using FrameBuffer = std::unique_ptr<uint8_t, FreeFrameBuffer>;

/** Bytes and their owner: a frame buffer, or the heap for what no frame buffer holds. */
struct Source {
    FrameBuffer frame_buffer;
    HeapBytes heap;
    uint32_t len = 0;

    const uint8_t *data() const {
        return frame_buffer != nullptr ? frame_buffer.get() : heap.get();
    }
};

/** Log which register so many bytes go to, and the end of the line; without one it stays open. */
void announce_write(const CommandLine &line, size_t len, const char *line_end = "");

/** The value bytes from argv[6] on, which are shown. False: no buffer (logged). */
bool source_from_values(const CommandLine &line, Source &source);

/** The whole file argv[6]. False: not found (usage printed), unreadable, no buffer (logged). */
bool source_from_file(const CommandLine &line, Source &source);

#endif
