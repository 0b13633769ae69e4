// fake_netdev.h - the kernel's side of opening and closing a link, played by the test.
//
// Linked with --wrap=socket,ioctl,bind,close: sockets have numbers that are never open in a test
// and never come back, unless it asks for the number 0; each call that concerns them is noted.
// Others' descriptors are really closed.
#ifndef TESTS_UNIT_STAND_INS_FAKE_NETDEV_H
#define TESTS_UNIT_STAND_INS_FAKE_NETDEV_H

#include <string>
#include <vector>

/** Forget all calls and failures; no socket is open. */
void netdev_reset();

/** Let the next calls by this name ("socket", "SIOCGIFFLAGS", ...) fail with an errno; 0: succeed.
 */
void netdev_fails(const std::string &call, int error);

/** Let the next socket have the number 0, as in a process that has closed its standard input. */
void netdev_zero_is_free();

/**
 * The calls since the last look: "socket", "SIOCGIFFLAGS eth0", "SIOCSIFFLAGS eth0 1103" with the
 * flags in hex, "SIOCGIFINDEX eth0", "bind", "close".
 */
std::vector<std::string> netdev_calls();

/** The sockets that are open, in the order of their opening. */
std::vector<int> netdev_sockets();

/** What the interfaces are: their flags, and the number of the first; the others follow it. */
constexpr short kInterfaceFlags = 0x1003; // up, broadcast, multicast
constexpr int kFirstInterface = 41;

/** Whether a socket was opened for raw frames of all protocols, close-on-exec. */
bool netdev_is_raw(int socket);

/** Where a socket was bound: the interface's number; 0: nowhere, or not as a packet socket. */
int netdev_bound_to(int socket);

#endif
