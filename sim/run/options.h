// options.h - the command line of ruk-card.
#ifndef CARD_OPTIONS_H
#define CARD_OPTIONS_H

#include <span>
#include <string>
#include <vector>

#include "card/card.h"
#include "pictures/picture_file.h"
#include "registers/memory_file.h"

namespace card {

struct Options {
    std::string text; // to print instead of running the card; empty: run it
    Identity identity;
    FaultConfig faults;
    std::vector<LoadOrder> loads;
    std::vector<SaveOrder> saves;
    std::string picture_directory; // empty: save no pictures
    std::vector<Ddr2PictureOrder> ddr2_pictures;
    std::string firmware_directory; // empty: save no firmware
    std::vector<FirmwareRefusal> firmware_refusals;
    bool trace = false;
    std::string trace_path;    // empty: standard output
    std::string counters_path; // empty: standard output
    std::vector<std::string> interfaces;
};

constexpr size_t kMaxInterfaces = 16;

/**
 * Read the arguments (without the program's name). Returns an empty text, or a message that says
 * which argument is wrong and what was expected.
 */
std::string parse_options(std::span<const char *const> arguments, Options &out);

} // namespace card

#endif
