// link_faults.h - the faults that strike a frame whatever its protocol, and their book-keeping.
#ifndef CARD_LINK_FAULTS_H
#define CARD_LINK_FAULTS_H

#include "faults/counters.h"
#include "faults/exchange.h"

namespace card {

/** Perhaps put an unrelated frame in front of the answer. */
void add_noise(FaultEngine &engine, Counters &counters, Outcome &out);

/** Count a fault that was committed on the request itself, and what became of the request. */
void commit_fault(Counters &counters, Fault fault, Disposition disposition, Outcome &out);

/** Lose, spoil, repeat or hold up a built reply. A lost reply suffers nothing else. */
void apply_link_faults(const ReplyFaults &faults, Reply &reply);

} // namespace card

#endif
