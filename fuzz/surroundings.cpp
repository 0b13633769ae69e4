#include "surroundings.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

void require(bool condition, const char *what) {
    if (!condition) {
        (void)fprintf(stderr, "fuzz: broken promise: %s\n", what);
        std::abort();
    }
}

uint8_t Input::byte() {
    if (rest_.empty()) {
        return 0;
    }
    const uint8_t first = rest_.front();
    rest_ = rest_.subspan(1);
    return first;
}

uint16_t Input::word() {
    const uint8_t low = byte();
    return static_cast<uint16_t>(low | byte() << 8);
}

uint32_t Input::long_word() {
    const uint32_t low = word();
    return low | static_cast<uint32_t>(word()) << 16;
}

extern "C" {

FILE *__real_fopen(const char *name, const char *mode);
FILE *__wrap_fopen(const char *name, const char *mode);
void __wrap_perror(const char *message);

FILE *__wrap_fopen(const char *name, const char *mode) {
    if (std::string_view(name).starts_with("/var/log/")) {
        errno = ENOENT;
        return nullptr;
    }
    return __real_fopen(name, mode);
}

void __wrap_perror(const char * /*message*/) {
}

} // extern "C"
