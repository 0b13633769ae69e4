// failure.h - the messages about steps that failed.
#ifndef CARD_FAILURE_H
#define CARD_FAILURE_H

#include <cerrno>
#include <cstring>
#include <string>

namespace card {

/** "memory: open 'boot.bin': No such file or directory" */
inline std::string failure(const char *what, const char *step, const std::string &object,
                           const char *reason = std::strerror(errno)) {
    return std::string(what) + ": " + step + " '" + object + "': " + reason;
}

} // namespace card

#endif
