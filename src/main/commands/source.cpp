#include "main/commands/source.h"

#include "ap_msg/input_file.h"
#include "base/errno_keeper.h"
#include "eth_raw/eth_raw.h"
#include "log/write.h"
#include "main/commands/usage.h"
#include "main/one_frame.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

namespace {

uint8_t *take_buffer(Source &source, uint32_t len) {
    if (len <= kCommandBuffer) {
        source.frame_buffer.reset(RawMsgBuffGet(len));
    } else {
        source.heap = heap_bytes(len);
    }
    uint8_t *buf = source.frame_buffer != nullptr ? source.frame_buffer.get() : source.heap.get();
    if (buf == nullptr) {
        LOG("RawMsgBuffGet fail\n");
    }
    return buf;
}

// One log call, so that the line stays whole: the receive thread's come before or behind it.
void show_values(const CommandLine &line, size_t given, std::span<const uint8_t> taken) {
    constexpr char kDigits[] = "0123456789abcdef";
    constexpr size_t kPerByte = 3;
    std::array<char, kPerByte * kCommandBuffer + sizeof "\n"> text{};
    size_t at = 0;
    for (const uint8_t byte : taken) {
        text[at++] = kDigits[byte >> 4U];
        text[at++] = kDigits[byte & 0xFU];
        text[at++] = ' ';
    }
    text[at] = '\n';
    announce_write(line, given, text.data());
}

} // namespace

void FreeFrameBuffer::operator()(uint8_t *buf) const {
    RawMsgBuffFree(buf);
}

void announce_write(const CommandLine &line, size_t len, const char *line_end) {
    LOG("write fpga %d , register : 0x%08x , length : %d value :%s", line.index, line.addr,
        static_cast<int>(len), line_end);
}

bool source_from_values(const CommandLine &line, Source &source) {
    uint8_t *buf = take_buffer(source, kCommandBuffer);
    if (buf == nullptr) {
        return false;
    }
    const ErrnoKeeper keep_errno; // the send that follows decides by errno
    const auto values = line.argv.subspan(kArgOwn);
    const auto taken = values.first(std::min<size_t>(values.size(), kCommandBuffer));
    source.len = static_cast<uint32_t>(taken.size());
    std::transform(taken.begin(), taken.end(), buf,
                   [](const char *value) { return static_cast<uint8_t>(parse_hex(value)); });
    show_values(line, values.size(), {buf, source.len});
    if (values.size() > source.len) {
        LOG("main: write values: more than one frame's %d bytes, the others ignored\n",
            static_cast<int>(source.len));
    }
    return true;
}

bool source_from_file(const CommandLine &line, Source &source) {
    const char *name = line.argv[kArgOwn];
    if (!find_file(name)) {
        usage();
        return false;
    }
    const File file = open_input(name);
    if (file == nullptr) {
        return false;
    }
    const int64_t size = size_of(file.get());
    if (size < 0 || size > std::numeric_limits<int32_t>::max()) {
        LOG("RawMsgBuffGet fail\n"); // more than the address space of a card, or of the board
        return false;
    }
    source.len = static_cast<uint32_t>(size);
    uint8_t *buf = take_buffer(source, source.len);
    if (buf == nullptr) {
        return false;
    }
    LOG("file size %d\n", static_cast<int>(source.len));
    if (fread(buf, 1, source.len, file.get()) != source.len) {
        LOG("main: read '%s': shorter than its size\n", name);
        return false;
    }
    return true;
}
