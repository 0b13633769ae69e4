#include "scheduler/settings.h"

#include "scheduler/choices.h"

namespace sim {

Settings g_settings;

bool fault(uint32_t one_in) {
    if (one_in == 0 || g_settings.faults_left <= 0 || !g_choices.happens(one_in)) {
        return false;
    }
    g_settings.faults_left -= 1;
    return true;
}

void calm_down() {
    g_settings.faults_left = 0;
    g_settings.steal_one_in = 0;
}

} // namespace sim
