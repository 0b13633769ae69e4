#include "faults/link_faults.h"

#include "faults/noise.h"
#include "wire/wire.h"

namespace card {

void add_noise(FaultEngine &engine, Counters &counters, Outcome &out) {
    if (!fault_happens(engine, Fault::kNoise)) {
        return;
    }
    Reply *noise = outcome_add(out);
    if (noise != nullptr) {
        make_noise(engine, *noise);
        noise->faults.add(Fault::kNoise);
        count_faults(counters, noise->faults);
    }
}

void commit_fault(Counters &counters, Fault fault, Disposition disposition, Outcome &out) {
    FaultSet one;
    one.add(fault);
    count_faults(counters, one);
    out.faults.add(fault);
    out.disposition = disposition;
}

void apply_link_faults(const ReplyFaults &faults, Reply &reply) {
    if (faults.set.has(Fault::kDrop)) {
        reply.copies = 0;
        reply.faults.add(Fault::kDrop);
        return;
    }
    for (const Fault fault : {Fault::kCorrupt, Fault::kDuplicate, Fault::kDelay}) {
        if (faults.set.has(fault)) {
            reply.faults.add(fault);
        }
    }
    if (faults.set.has(Fault::kCorrupt)) {
        wire::spoil_checksum(MutableBytes(reply.bytes).first(reply.size), faults.checksum_change);
    }
    reply.copies = faults.set.has(Fault::kDuplicate) ? 2 : 1;
    reply.delay_us = faults.delay_us;
    reply.behind_next = faults.set.has(Fault::kReorder); // the outbox sees whether it comes to it
}

} // namespace card
