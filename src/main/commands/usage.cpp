#include "main/commands/usage.h"

#include <cstdio>

namespace {

// Scripts compare these lines: they stay as they are.
constexpr const char *kUsageLines[] = {
    "usage: ",
    "    [ Hex ]",
    "    [ fpga id read model slot addr len ]",
    "    [ fpga id readw model slot addr len ]",
    "    [ fpga id write model slot addr value ]",
    "    [ fpga id writea model slot addr value ]",
    "    [ fpga id writeaw model slot addr value ]",
    "    [ fpga id write model slot addr filename ]",
    "    [ fpga id writea model slot addr filename ]",
};

} // namespace

void usage() {
    for (const char *line : kUsageLines) {
        (void)puts(line); // a closed standard output changes nothing for the caller
    }
}
