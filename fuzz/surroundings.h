// surroundings.h - what every fuzz target needs around the code under test.
//
// Linked with --wrap=fopen,perror: no log file opens under /var/log, and failures of the link,
// which the inputs cause on purpose, are not reported line by line.
#ifndef FUZZ_SURROUNDINGS_H
#define FUZZ_SURROUNDINGS_H

#include <cstddef>
#include <cstdint>
#include <span>

/** End the process with a message unless the condition holds: the fuzzer keeps the input. */
void require(bool condition, const char *what);

/** Takes an input apart, front to back. Behind its end everything reads as 0. */
class Input {
public:
    Input(const uint8_t *data, size_t size) : rest_(data, size) {
    }
    [[nodiscard]] bool is_empty() const {
        return rest_.empty();
    }
    uint8_t byte();
    uint16_t word();      // low byte first
    uint32_t long_word(); // low byte first

private:
    std::span<const uint8_t> rest_;
};

#endif
