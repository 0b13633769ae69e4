// region.h - a stretch of a card's memory that one thread alone writes, and what may stand in it.
#ifndef TESTS_SOAK_REGION_H
#define TESTS_SOAK_REGION_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace soak {

using Bytes = std::vector<uint8_t>;

class Random {
public:
    explicit Random(uint32_t seed) : engine_(seed) {
    }
    /** From 0 to less than so many. */
    uint32_t below(uint32_t limit) {
        return static_cast<uint32_t>(engine_() % limit);
    }

private:
    std::mt19937 engine_;
};

/** Contents are versions: 0 is a memory that nobody has written, the others differ in every byte's
 * neighbourhood, so that no part of one can be taken for another. */
inline uint8_t byte_of(uint32_t addr, uint32_t version, uint32_t i) {
    if (version == 0) {
        return 0;
    }
    uint32_t mixed = addr * 2654435761U + version * 2246822519U + i * 3266489917U;
    mixed ^= mixed >> 15;
    mixed *= 668265263U;
    return static_cast<uint8_t>(mixed >> 24);
}

class Region {
public:
    Region(uint32_t addr, uint32_t len) : addr_(addr), len_(len) {
    }
    [[nodiscard]] uint32_t addr() const {
        return addr_;
    }
    [[nodiscard]] uint32_t len() const {
        return len_;
    }

    /** The next version, for a write that may come through. */
    Bytes next_content() {
        newest_ += 1;
        possible_.push_back(newest_);
        Bytes bytes(len_);
        for (uint32_t i = 0; i < len_; i++) {
            bytes[i] = byte_of(addr_, newest_, i);
        }
        return bytes;
    }

    /** The last write did come through. */
    void confirm() {
        possible_ = {newest_};
    }

    /** What was read is one of the contents that may be there; from here on, it is the only one. */
    bool take(std::span<const uint8_t> bytes) {
        const auto found = std::ranges::find_if(
            possible_, [&](uint32_t version) { return holds(bytes, version); });
        if (found == possible_.end()) {
            return false;
        }
        possible_ = {*found};
        return true;
    }

    /** As take, while writes may still be under way. */
    [[nodiscard]] bool may_hold(std::span<const uint8_t> bytes) const {
        return std::ranges::any_of(possible_,
                                   [&](uint32_t version) { return holds(bytes, version); });
    }

private:
    [[nodiscard]] bool holds(std::span<const uint8_t> bytes, uint32_t version) const {
        for (uint32_t i = 0; i < bytes.size(); i++) {
            if (bytes[i] != byte_of(addr_, version, i)) {
                return false;
            }
        }
        return bytes.size() == len_;
    }

    uint32_t addr_;
    uint32_t len_;
    uint32_t newest_ = 0;
    std::vector<uint32_t> possible_ = {0};
};

} // namespace soak

#endif
