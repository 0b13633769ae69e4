// fake_wire.h - the kernel's side of the link, played by the test.
//
// Linked with --wrap=sendto,recvfrom: frames that the product sends land in a list, sends can be
// made to fail, and frames can be delivered.
#ifndef TESTS_UNIT_STAND_INS_FAKE_WIRE_H
#define TESTS_UNIT_STAND_INS_FAKE_WIRE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

using Frame = std::vector<uint8_t>;

/** A fresh link on interface index: open, nothing sent, no failures armed. */
void wire_open(int index);

/** Close the link again: the record is as if it had never been opened. */
void wire_close(int index);

/** Every frame handed to sendto so far, also those whose send was made to fail. */
std::vector<Frame> wire_sent();

/** The descriptors that the frames went to. */
std::vector<int> wire_descriptors();

/** The buffers that somebody has waited with for frames, in the order of the first time. */
std::vector<const void *> wire_receive_buffers();

/** Wait until so many frames were sent; false after 10 s. */
bool wire_await_sent(size_t count);

/** Make the next sends give this result and errno (result kWholeFrame: the frame's length). */
constexpr ssize_t kWholeFrame = -1000;
void wire_next_send(ssize_t result, int error);

/** recvfrom's next result: a frame, or a failure with errno. */
void wire_deliver(const Frame &frame);
void wire_deliver_failure(int error);

/** Build a reply by hand, byte by byte. */
Frame make_reply(uint8_t ack, uint16_t model, uint8_t slot, uint16_t seq, uint8_t code,
                 uint32_t addr, const std::vector<uint8_t> &data);

/** Fields of a request frame, read by hand. */
uint16_t seq_of(const Frame &request);
uint32_t addr_of(const Frame &request);
uint16_t len_of(const Frame &request);

#endif
