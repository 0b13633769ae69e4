#include "world/world.h"

#include "calls/bus_semaphore.h"
#include "calls/files.h"
#include "calls/fork.h"
#include "calls/link.h"
#include "calls/locks.h"
#include "calls/messages.h"
#include "memory/product_memory.h"
#include "memory/queue_probe.h"
#include "memory/races.h"
#include "scheduler/choices.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/bus_card.h"
#include "world/card.h"
#include "world/picture_card.h"

namespace sim {

World &world() {
    static World only;
    return only;
}

void reset_world() {
    reset_product_memory();
    races_reset();
    reset_locks();
    reset_standard_output();
    reset_link();
    reset_cards();
    reset_bus_card();
    reset_picture_cards();
    reset_bus_semaphore();
    reset_messages();
    reset_files();
    reset_host();
    reset_fork();
    forget_names();
    world() = {};
    g_settings = {};
    g_choices.is_held = false;
}

} // namespace sim
