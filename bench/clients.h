// clients.h - the two clients that are compared. Each call runs in a process of its own.
#ifndef BENCH_CLIENTS_H
#define BENCH_CLIENTS_H

#include <cstdint>
#include <vector>

/** One sendto and one recvfrom per request on one thread, nothing else. index: "eth0" to "eth2". */
std::vector<double> bare_round_trips(int index, int cpu, int count);

/** RawSockSendMsgWithReadWait and ...AckWait. Both return one median in us per kRoundTrips. */
std::vector<double> product_round_trips(int index, int cpu, int count);

/** sendto in a loop over frames made beforehand. */
std::vector<double> bare_writes(int index, int cpu, uint32_t bytes, int count);

/** RawSockSendMsg. Both return the median time in us of one transfer of so many bytes. */
std::vector<double> product_writes(int index, int cpu, uint32_t bytes, int count);

/** One read over a bare socket, for the comparison of whole processes. */
void bare_read_once(int index);

#endif
