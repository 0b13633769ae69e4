// loop.h - the running card: waits for frames, times and signals, and answers.
#ifndef CARD_LOOP_H
#define CARD_LOOP_H

#include <string>

#include "run/options.h"

namespace card {

/**
 * Run the card until a signal ends it. Returns an empty text, or a message that says which step
 * failed.
 */
std::string run_card(const Options &options);

} // namespace card

#endif
