// messages.h - the board's message library in the simulation, and its clients' side.
#ifndef SIMULATION_MESSAGES_H
#define SIMULATION_MESSAGES_H

#include <cstdint>
#include <vector>

namespace sim {

using Message = std::vector<uint8_t>;

void reset_messages();

/** A client's message to the service. */
void send_to_service(Message message);

/** All that was sent to an address so far; the simulation forgets it. */
std::vector<Message> take_messages(uint32_t address);

} // namespace sim

#endif
