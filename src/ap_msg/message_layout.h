// message_layout.h - the record that every service request and reply uses, written once.
//
// A 24-byte message head, a 14-byte request head, then data. All fields are little-endian; those of
// the request head stand at odd places, so everything is loaded and stored byte by byte.
#ifndef AP_MSG_MESSAGE_LAYOUT_H
#define AP_MSG_MESSAGE_LAYOUT_H

#include "base/field.h"

#include <array>

namespace message {
constexpr Field kAptid{0, 4}; // sender: slot << 24 | 0x0A << 16 | module << 8
constexpr Field kReserved{4, 4};
constexpr Field kDataLen{8, 4};
constexpr Field kResult{12, 4}; // 0 done, 0xFFFFFFFF failed
constexpr Field kKind{16, 2};
constexpr Field kClass{18, 2};
constexpr Field kId{20, 4};
constexpr Field kHead[] = {kAptid, kReserved, kDataLen, kResult, kKind, kClass, kId};
constexpr size_t kHeadSize = 24;
static_assert(tiles(kHead, kHeadSize), "gap or overlap in the message head");

constexpr Field kSource{24, 1};
constexpr Field kTarget{25, 1};
constexpr Field kCode{26, 1};
constexpr Field kSlot{27, 1};
constexpr Field kModel{28, 2};
constexpr Field kSeq{30, 2};
constexpr Field kAddr{32, 4};
constexpr Field kLen{36, 2};
constexpr size_t kDataOffset = 38;
constexpr size_t kRequestHeadSize = kDataOffset - kHeadSize;

// Data of a picture request: the size, then the file name to the end of the data.
constexpr Field kPictureWidth{38, 4};
constexpr Field kPictureHeight{42, 4};
constexpr size_t kPictureName = 46;

// Data of an update request: the kind of update, then the file name to the end of the data.
constexpr Field kUpdateKind{38, 4};
constexpr size_t kUpdateName = 42;

// What the service keeps of a file request: request head and data; and of the names in it.
constexpr size_t kFileRequestArea = 1024;
constexpr size_t kLongestPictureName = 255;
constexpr size_t kLongestBmpName = 100; // what a picture that is read is called, ".bmp" included

constexpr uint32_t kHeaderSize = 40; // both heads and two data bytes: the shortest message sent
constexpr uint32_t kServiceClass = 28;
constexpr uint32_t kGreetingId = 46;

// Addresses of modules without the slot of their card.
constexpr uint32_t kOwnModule = 0xA3B00;
constexpr uint8_t kOwnModuleId = 0x3B;
constexpr uint32_t kTestModule = 0xA3A00;
constexpr uint32_t kPeerModule = 0xA3C00; // its acknowledged writes are never sent as plain ones
constexpr uint32_t kSlotShift = 24;

// The units that modules of the board list, for each family of cards: four and an end record. The
// service needs none of them; they are here for what is built with this header.
using Unit = std::array<uint32_t, 4>;
constexpr uint32_t kLastUnit = 0xFFFFFFFF; // first word of the end record
constexpr Unit kFirstFamilyUnits[] = {
    {3, 8, 0x3A1D0, 0}, {3, 8, 0x3A1D0, 0},   {3, 8, 0x3A1D0, 0},
    {3, 8, 0x3A1D0, 0}, {kLastUnit, 0, 0, 0},
};
constexpr Unit kSecondFamilyUnits[] = {
    {3, 8, 0x3A1D0, 0}, {3, 8, 0x3A1D0, 0},   {3, 8, 0x3A1D0, 0},
    {3, 8, 0x3A1D0, 0}, {kLastUnit, 0, 0, 0},
};
static_assert(sizeof kFirstFamilyUnits == 80 && sizeof kSecondFamilyUnits == 80);

// Request codes.
constexpr uint8_t kCodeRead = 0x00;
constexpr uint8_t kCodeWrite = 0x01;
constexpr uint8_t kCodeWriteAck = 0x02;
constexpr uint8_t kCodePutPicture = 0xEE;
constexpr uint8_t kCodeGetPicture = 0xDD;
constexpr uint8_t kCodeUpdate = 0xEF;
constexpr uint8_t kCodeGreeting = 0xF0;
} // namespace message

#endif
