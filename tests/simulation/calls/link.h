// link.h - interfaces, sockets and the wire between them and the model cards.
#ifndef SIMULATION_LINK_H
#define SIMULATION_LINK_H

#include <cstdint>
#include <span>
#include <vector>

namespace sim {

using Frame = std::vector<uint8_t>;

constexpr int kInterfaces = 3;

void reset_link();

// What happens to an interface while the host runs.
void set_interface_up(int index, bool is_up);
void remove_interface(int index);
void add_interface(int index); // a new one of the same name

/** From a card to every socket that listens on its interface; the wire does its worst. */
void send_to_board(int index, Frame frame);

/** A descriptor that is not the product's: the product must neither close nor use it. */
int open_foreign_descriptor();

/** For files: a descriptor of the product that is no socket. */
int open_other_descriptor(const char *what);

/** Fails the run if the product has left descriptors open. */
void must_have_closed_all();

struct WireCounters {
    uint32_t requests; // frames that the product has sent
    uint32_t faults;   // what the wire has done to frames, in both directions
};
extern WireCounters g_wire;

} // namespace sim

#endif
