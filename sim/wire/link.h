// link.h - one raw packet socket on one network interface.
#ifndef CARD_LINK_H
#define CARD_LINK_H

#include <cstdint>
#include <optional>
#include <string>

#include "fd.h"
#include "wire/bytes.h"

namespace card {

struct Link {
    std::string name;
    Fd socket;
};

enum class Received : uint8_t {
    kFrame,
    kNothing,  // woken without a frame
    kOutgoing, // a frame that leaves through this interface, perhaps our own
    kError,    // the interface is down or gone; errno says which
};

/**
 * Open a socket for all frames of the interface, in promiscuous mode: requests go to a fixed
 * address that is not the interface's own. Returns an empty text, or a message that says which
 * step failed.
 */
std::string link_open(const std::string &name, Link &out);

/** True when the interface is up. */
bool link_is_up(const Link &link);

/** Wait for one frame; `size` is set for kFrame only. A signal ends the wait with kNothing. */
Received link_receive(const Link &link, MutableBytes buffer, size_t &size);

/** Make all waits for a frame end at once from now on. */
void link_stop_waiting(const Link &link);

/** Send one frame; false with errno set when it did not go out in full. */
bool link_send(const Link &link, Bytes frame);

/** How many frames the kernel dropped since the last call, because the card was too slow. */
uint32_t link_take_kernel_drops(const Link &link);

} // namespace card

#endif
