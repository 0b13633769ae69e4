// standstill.h - whether the machine let the tests run.
//
// The product counts its time-outs in ticks of 30 ms. On a shared machine a processor can be taken
// away for longer than a whole request lasts, and what a test sees then is no fault of the product.
#ifndef TESTS_SYSTEM_BED_STANDSTILL_H
#define TESTS_SYSTEM_BED_STANDSTILL_H

#include <chrono>

namespace bed {

/** From here on answers can come too late. */
constexpr std::chrono::milliseconds kStandstill{50};

/** Watch each processor from now on. */
void standstill_watch();

/** How long a processor let nobody run at most, since the last call. */
std::chrono::milliseconds standstill_take();

} // namespace bed

#endif
