#include "world.h"

#include "bus_card.h"
#include "bus_semaphore.h"
#include "card.h"
#include "choices.h"
#include "files.h"
#include "fork.h"
#include "link.h"
#include "locks.h"
#include "messages.h"
#include "picture_card.h"
#include "product_memory.h"
#include "queue_probe.h"
#include "races.h"
#include "settings.h"
#include "trace.h"

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
