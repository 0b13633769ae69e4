// noise.h - unrelated frames, as a busy link carries them between the answers.
#ifndef CARD_NOISE_H
#define CARD_NOISE_H

#include "faults/exchange.h"

namespace card {

/** The kinds of noise, in the order in which make_noise numbers them. */
enum class NoiseKind : uint8_t {
    kOtherTraffic,  // other addresses and type, random contents
    kWrongMarkers,  // addresses of a reply, markers of a request
    kRandomMarkers, // addresses of a reply, random markers that are not a reply's
    kCutShort,      // the start of a reply, cut off inside its head
};
constexpr uint64_t kNoiseKinds = 4;

/** Fill the frame of `out` with noise of a random kind. */
void make_noise(FaultEngine &engine, Reply &out);

/** Fill the frame of `out` with noise of this kind. */
void make_noise_of(FaultEngine &engine, NoiseKind kind, Reply &out);

} // namespace card

#endif
