// The queues as they are, in one piece with the probe that sees their variables. The capacity alone
// is another: with 65536 records no search would ever see a full queue.
#define kQueueCapacity kCapacityOfTheProduct
#include "queue/record_holders.h"
#undef kQueueCapacity

namespace {
int32_t kQueueCapacity = kCapacityOfTheProduct;
} // namespace

#include "queue/queue.cpp"

#include "memory/queue_probe.h"

namespace sim {

void set_queue_capacity(int32_t capacity) {
    kQueueCapacity = capacity;
}

// The probe is no thread of the product: it reports no accesses.
__attribute__((no_sanitize_thread)) int32_t queue_count(int i, int j) {
    return Qcount[i][j];
}

__attribute__((no_sanitize_thread)) int32_t queue_length(int i, int j) {
    constexpr int32_t kMost = 100000;
    int32_t length = 0;
    const RawMsgQueueNode *before = nullptr;
    for (const RawMsgQueueNode *record = Qlist[i][j].head; record != nullptr;
         record = record->next) {
        if (record->prev != before || record->home != &Qlist[i][j] || length == kMost) {
            return -1;
        }
        before = record;
        length += 1;
    }
    return length == 0 || Qlist[i][j].tail == before ? length : -1;
}

} // namespace sim
