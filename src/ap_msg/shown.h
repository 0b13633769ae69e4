// shown.h - texts and names from other processes, as the log shows them.
#ifndef AP_MSG_SHOWN_H
#define AP_MSG_SHOWN_H

#include "base/owners.h"

#include <string_view>

/**
 * A copy in which each control character, and each byte that belongs to no UTF-8 character, reads
 * \xNN: a line end in a name could write log lines of its own, an escape sequence could do as it
 * likes with the terminal of whoever reads the log.
 */
class Shown {
public:
    explicit Shown(std::string_view text);
    [[nodiscard]] const char *text() const;

private:
    HeapBytes copy_; // null: no memory
};

#endif
