// settings.h - how rough a run is. A case sets limits, the seed chooses within them.
#ifndef SIMULATION_SETTINGS_H
#define SIMULATION_SETTINGS_H

#include <cstdint>

namespace sim {

struct Settings {
    uint32_t steal_one_in = 0;     // at so many points time runs on under a thread that could go on
    uint32_t fine_one_in = 0;      // at so many accesses to shared memory another thread may go on
    bool looks_for_races = false;  // costs time: only in some runs
    bool signals_end_waits = true; // a sem_wait may end with EINTR
    uint32_t pct_depth = 3;        // changes of priority + 1
    uint64_t most_steps = 400000;
    int64_t most_time_ms = 120000; // virtual: who has not returned by then never will

    // One call in so many fails; 0: none. Only while faults_left lasts.
    uint32_t no_memory_one_in = 0;
    uint32_t no_thread_one_in = 0;
    uint32_t send_fails_one_in = 0;
    uint32_t receive_fails_one_in = 0;
    uint32_t open_fails_one_in = 0;
    uint32_t message_fails_one_in = 0;
    uint32_t other_fails_one_in = 0;
    // One frame in so many.
    uint32_t lose_one_in = 0;
    uint32_t repeat_one_in = 0;
    uint32_t damage_one_in = 0;
    uint32_t refuse_one_in = 0;
    uint32_t odd_reply_one_in = 0; // status 255, no data, more data than asked for
    uint32_t foreign_one_in = 0;
    uint32_t slow_one_in = 0; // comes 1 to 400 ms late
    int32_t faults_left = 0;
    bool keeps_order = false; // frames overtake each other only by a fault
};

extern Settings g_settings;

/** Whether the next call of this kind fails; uses up one fault. */
bool fault(uint32_t one_in);

/** No more faults in this run. */
void calm_down();

} // namespace sim

#endif
