// files.h - the files that the product opens: names and contents, nothing on any disk.
#ifndef SIMULATION_FILES_H
#define SIMULATION_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

void reset_files();
void put_file(const std::string &name, std::vector<uint8_t> content);

/** Null: there is none of this name. */
const std::vector<uint8_t> *file_content(const std::string &name);

} // namespace sim

#endif
