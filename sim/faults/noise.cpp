#include "faults/noise.h"

#include <algorithm>

#include "wire/wire.h"

namespace card {

namespace {

constexpr size_t kLongest = 600;
constexpr size_t kEthernetHead = 14;
constexpr wire::Address kForeignDestination = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
constexpr wire::Address kForeignSource = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
constexpr uint32_t kForeignType = 0xB588; // bytes 88 B5, the type set aside for experiments

void fill_random(FaultEngine &engine, MutableBytes bytes) {
    std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(draw_detail(engine, 256)); });
}

void put_addresses(MutableBytes frame, const wire::Address &to, const wire::Address &from) {
    std::ranges::copy(to, frame.begin() + wire::kDestination);
    std::ranges::copy(from, frame.begin() + wire::kSource);
}

void put_markers(MutableBytes frame, uint8_t first, uint8_t second) {
    frame[wire::kMarker] = first;
    frame[wire::kMarker + 1] = second;
}

size_t draw_size(FaultEngine &engine, NoiseKind kind) {
    if (kind == NoiseKind::kCutShort) {
        const auto cut = draw_detail(engine, wire::reply::kPayload - kEthernetHead);
        return kEthernetHead + static_cast<size_t>(cut);
    }
    return wire::kMinFrame + static_cast<size_t>(draw_detail(engine, kLongest - wire::kMinFrame));
}

} // namespace

void make_noise_of(FaultEngine &engine, NoiseKind kind, Reply &out) {
    out.kind = ReplyKind::kNoise;
    out.protocol = nullptr;
    out.size = draw_size(engine, kind);
    const MutableBytes frame = MutableBytes(out.bytes).first(kLongest);
    fill_random(engine, frame);
    put_addresses(frame, wire::kBoardAddress, wire::kCardAddress);
    store_le(frame, wire::kType, wire::kTypeValue);
    switch (kind) {
    case NoiseKind::kOtherTraffic:
        put_addresses(frame, kForeignDestination, kForeignSource);
        store_le(frame, wire::kType, kForeignType);
        break;
    case NoiseKind::kWrongMarkers:
        put_markers(frame, wire::kRequestMarker[0], wire::kRequestMarker[1]);
        break;
    case NoiseKind::kRandomMarkers:
        // Any first marker but the right one will do; the second is right, to tempt the receiver.
        put_markers(frame,
                    static_cast<uint8_t>(wire::kReplyMarker[0] + 1 + draw_detail(engine, 255)),
                    wire::kReplyMarker[1]);
        break;
    case NoiseKind::kCutShort:
        put_markers(frame, wire::kReplyMarker[0], wire::kReplyMarker[1]);
        break;
    }
}

void make_noise(FaultEngine &engine, Reply &out) {
    make_noise_of(engine, static_cast<NoiseKind>(draw_detail(engine, kNoiseKinds)), out);
}

} // namespace card
