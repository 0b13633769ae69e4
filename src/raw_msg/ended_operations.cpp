#include "raw_msg/raw_msg.h"

sem_t sem_test;

void post_test(void) {
    (void)sem_post(&sem_test); // at its highest value there is no lack of posts
}

void RawMsgWriteTest(void) {
}
