#include "world.h"

#include "card.h"
#include "choices.h"
#include "fork.h"
#include "link.h"
#include "locks.h"
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
    reset_host();
    reset_fork();
    forget_names();
    world() = {};
    g_settings = {};
    g_choices.is_held = false;
}

} // namespace sim
