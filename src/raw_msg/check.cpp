#include "raw_msg/raw_msg.h"

#include "base/locks.h"
#include "log/write.h"
#include "queue/record_holders.h"
#include "raw_msg/request_rules.h"
#include "raw_msg/threads.h"
#include "raw_msg/watch.h"
#include "timer/sleep.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto kCheckPause = 10000us;

void check_all(int index) {
    const CancelOff whole_pass;
    const MutexGuard guard(find_check_lock(index));
    CheckAckRawMsg(index);
    CheckAckWaitRawMsg(index);
    CheckReadRawMsg(index);
    CheckReadWaitRawMsg(index);
}

} // namespace

void CheckAckRawMsg(int index) {
    (void)queue_check(index, ACK_QUEUE, AckCompleteMsg);
}

void CheckAckWaitRawMsg(int index) {
    (void)queue_check(index, ACK_WAIT_QUEUE, AckWaitCompleteMsg);
}

void CheckReadRawMsg(int index) {
    (void)queue_check(index, READ_QUEUE, ReadCompleteMsg);
}

void CheckReadWaitRawMsg(int index) {
    (void)queue_check(index, READ_WAIT_QUEUE, ReadWaitCompleteMsg);
}

void end_all_requests(int index) {
    if (!queue_is_valid(index, ACK_QUEUE)) {
        return;
    }
    const CancelOff whole_pass;
    const MutexGuard guard(find_check_lock(index));
    queue_time_out_all(index, ACK_QUEUE, kLastCountUnwaited, AckCompleteMsg);
    queue_time_out_all(index, ACK_WAIT_QUEUE, kLastCountWaited, AckWaitCompleteMsg);
    queue_time_out_all(index, READ_QUEUE, kLastCountUnwaited, ReadCompleteMsg);
    queue_time_out_all(index, READ_WAIT_QUEUE, kLastCountWaited, ReadWaitCompleteMsg);
}

void *RawMsgAckReadCheck(void *index_value) {
    const int index = static_cast<int>(reinterpret_cast<intptr_t>(index_value));
    const ThreadEnd announce_end;
    const Watch watch(index);
    pin_to_processor(index, "RawMsgAckReadCheck");
    LOG("thread1 id : %d index = %d\n", static_cast<int>(syscall(SYS_gettid)), index);
    if (!queue_is_valid(index, ACK_QUEUE)) {
        return nullptr; // no such interface, so nothing can time out on it
    }
    for (;;) {
        timerUpdate(static_cast<uint32_t>(index), kQueueKinds);
        check_all(index);
        sleep_full(kCheckPause);
    }
}
