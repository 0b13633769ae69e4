// host.h - a host process that uses the product: start, stop, its requests and what it may expect.
#ifndef SIMULATION_HOST_H
#define SIMULATION_HOST_H

#include <cstdint>
#include <functional>

namespace sim {

/** The forms of a request. */
enum class Form { kPlain, kAck, kAckWait, kRead, kReadWait };
constexpr int kForms = 5;
const char *name_of(Form form);

/** What a host does once before anything else. */
void start_host();

/** Opens an interface; its threads run. */
void link_up(int index);

/** As rukd and the tool take it down: cancel and join both threads, close. */
void link_down(int index);
bool link_is_up(int index);

/** Whether its receive thread was to be had. A link without one sends, and hears nothing. */
bool link_receives(int index);

/** One request of up to two frames to addresses of its own; checks all that it can be asked. */
void request(int index, Form form, uint32_t len, int32_t ticks = 2);

/** The next request's first address, of nobody else's. */
uint32_t new_address();

/** A thread of the host. Returns its number. */
int start_host_thread(const char *name, std::function<void()> body);
void join_host_thread(int thread);
void cancel_host_thread(int thread);

void host_sleep(int64_t duration_ms);

/** Posts that may be there when all is done: each request adds to both. */
void expect_posts(int32_t least, int32_t most);

/** Nothing but time may still be needed: waits until all requests have ended, then checks. */
void settle();

/** The whole end of a case: faults stop, all is settled, one request of each form, all goes down.
 */
void finish(bool is_link_usable = true);

/** Whether something has gone wrong that excuses a request that fails. */
bool is_excused();
void excuse();

/** In a child: what the parent had under way is nobody's any more. */
void excuse_inherited();

} // namespace sim

#endif
