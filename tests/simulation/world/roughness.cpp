#include "world/roughness.h"

#include "scheduler/choices.h"
#include "scheduler/settings.h"
#include "world/world.h"

namespace sim {

namespace {

// Off in most runs, often in some.
uint32_t rate(uint32_t of_runs) {
    static const uint32_t kRates[] = {4, 10, 30};
    return g_choices.pick(of_runs) == 0 ? kRates[g_choices.pick(3)] : 0;
}

} // namespace

void choose_busy_processor() {
    if (!g_choices.is_seeded()) {
        return;
    }
    static const uint32_t kSteal[] = {0, 0, 400, 100, 25};
    static const uint32_t kFine[] = {0, 0, 0, 0, 64, 16, 4};
    g_settings.steal_one_in = kSteal[g_choices.pick(5)];
    g_settings.fine_one_in = kFine[g_choices.pick(7)];
    g_settings.looks_for_races = g_choices.pick(12) == 0;
    g_settings.pct_depth = 2 + g_choices.pick(4);
    g_settings.signals_end_waits = g_choices.pick(2) == 0;
}

void choose_roughness() {
    choose_busy_processor();
    if (!g_choices.is_seeded() || g_choices.pick(4) == 0) {
        return;
    }
    Settings &s = g_settings;
    s.no_memory_one_in = rate(6);
    s.send_fails_one_in = rate(6);
    s.receive_fails_one_in = rate(6);
    s.other_fails_one_in = rate(6);
    s.lose_one_in = rate(3);
    s.repeat_one_in = rate(4);
    s.damage_one_in = rate(5);
    s.refuse_one_in = rate(5);
    s.odd_reply_one_in = rate(6);
    s.foreign_one_in = rate(6);
    s.slow_one_in = rate(4);
    s.faults_left = static_cast<int32_t>(1 + g_choices.pick(12));
    world().faults_at_start = s.faults_left;
}

} // namespace sim
