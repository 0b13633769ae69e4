// The file thread: pictures and firmware, which would hold up the service's receive thread.
#include "ap_msg/ap_msg.h"

#include "ap_msg/handover.h"
#include "ap_msg/request_head.h"
#include "base/locks.h"
#include "log/write.h"
#include "raw_msg/threads.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int kFilePriority = 95;
constexpr size_t kRequestCopy = 2048; // zeros behind what the hand-over area holds

// Of the latest file request: its head and data, and the first 40 bytes of its message.
uint8_t file_name_data[message::kFileRequestArea];
uint8_t file_write_head[message::kFileRequestArea];
// Guards both, and is held while a request is carried out.
pthread_mutex_t file_mutex = PTHREAD_MUTEX_INITIALIZER;
sem_t sem_file_write; // file requests handed over

[[maybe_unused]] const bool g_renews_lock =
    renew_in_child([] { file_mutex = PTHREAD_MUTEX_INITIALIZER; });

struct FileService {
    uint8_t code;
    int (*run)(void *head, void *req);
};
constexpr FileService kFileServices[] = {
    {message::kCodePutPicture, write_file_handle},
    {message::kCodeGetPicture, read_file_handle},
    {message::kCodeUpdate, update_file_handle},
};

// Under the lock from the copy to the end of the work: the next file request waits in the receive
// thread, so that it cannot overwrite one that has been taken but not begun.
void carry_out_next() {
    uint8_t request[kRequestCopy] = {};
    uint8_t head[message::kFileRequestArea];
    const MutexGuard guard(file_mutex);
    memcpy(request, file_name_data, sizeof file_name_data);
    memcpy(head, file_write_head, sizeof file_write_head);
    const uint8_t code = read_request(request).code;
    for (const FileService &service : kFileServices) {
        if (service.code == code) {
            // Failures are logged; an update is answered by its row.
            (void)service.run(head, request);
        }
    }
}

} // namespace

void hand_over(std::span<const uint8_t> message) {
    {
        const MutexGuard guard(file_mutex);
        memset(file_name_data, 0, sizeof file_name_data); // no tail of an older name
        memset(file_write_head, 0, sizeof file_write_head);
        memcpy(file_name_data, message.data() + message::kHeadSize,
               message.size() - message::kHeadSize);
        memcpy(file_write_head, message.data(),
               std::min<size_t>(message.size(), message::kHeaderSize));
    }
    (void)sem_post(&sem_file_write); // cannot overflow: each post has waited for the lock
}

int PmdApFileTaskCreate(void *arg) {
    (void)sem_init(&sem_file_write, 0, 0); // cannot fail with this value
    pthread_t unused{};                    // the file thread runs until the process ends
    return start_realtime_thread(ApMsgFileProc, arg, kFilePriority, &unused);
}

void *ApMsgFileProc(void *index) {
    const int number = static_cast<int>(reinterpret_cast<intptr_t>(index));
    pin_to_processor(number, "ApMsgFileProc");
    LOG("file write  thread id : %d index = %d\n", gettid(), number);
    for (;;) {
        wait_full(sem_file_write);
        carry_out_next();
    }
}
