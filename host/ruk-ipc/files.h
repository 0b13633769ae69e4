// files.h - the files of --input and --output.
#ifndef RUK_IPC_FILES_H
#define RUK_IPC_FILES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace ipc {

/** Read a whole file. Returns empty, or why it cannot be read, is empty, or is longer than most. */
std::string read_file(const std::string &name, size_t most, std::vector<uint8_t> &bytes);

/**
 * Save bytes in a file that is there complete or not at all. What is no regular file (a device, a
 * pipe) is written to as it is. Returns empty, or why it cannot be written.
 */
std::string save_file(const std::string &name, std::span<const uint8_t> bytes);

} // namespace ipc

#endif
