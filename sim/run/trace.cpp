#include "run/trace.h"

#include <array>
#include <cstdio>

#include "wire/wire.h"

namespace card {

namespace {

constexpr uint64_t kUsPerSecond = 1'000'000;

struct DispositionText {
    Disposition disposition;
    const char *text;
};
constexpr DispositionText kDispositions[] = {
    {Disposition::kOtherProtocol, "ignored: other protocol"},
    {Disposition::kOtherMarkers, "ignored: other markers"},
    {Disposition::kOtherCard, "ignored: for another card"},
    {Disposition::kBadType, "bad: type field"},
    {Disposition::kBadLength, "bad: length"},
    {Disposition::kBadCode, "bad: code"},
    {Disposition::kBadChecksum, "bad: checksum"},
    {Disposition::kLostRequest, "treated as lost"},
    {Disposition::kWritten, "written"},
    {Disposition::kSilent, "carried out, not answered"},
    {Disposition::kRefused, "refused"},
    {Disposition::kAnswered, "carried out"},
};

const char *disposition_text(Disposition disposition) {
    for (const DispositionText &row : kDispositions) {
        if (row.disposition == disposition) {
            return row.text;
        }
    }
    return "";
}

// Time, interface, direction and frame length, in columns.
std::string line_head(const std::string &link, uint64_t now_us, const char *direction,
                      size_t size) {
    std::array<char, 96> text{};
    (void)std::snprintf(text.data(), text.size(), "%5llu.%06llu %s %s %4zu ",
                        static_cast<unsigned long long>(now_us / kUsPerSecond),
                        static_cast<unsigned long long>(now_us % kUsPerSecond), link.c_str(),
                        direction, size);
    return text.data();
}

// The start of a frame that no protocol knows.
std::string describe_foreign(Bytes frame) {
    constexpr size_t kEthernetHead = 14;
    std::string out = "frame";
    std::array<char, 4> text{};
    for (size_t i = 0; i < frame.size() && i < kEthernetHead; i++) {
        const bool gap = i == wire::kDestination || i == wire::kSource || i == wire::kType.offset;
        (void)std::snprintf(text.data(), text.size(), gap ? " %02x" : "%02x", frame[i]);
        out += text.data();
    }
    return out;
}

std::string describe(const Protocol *protocol, Bytes frame) {
    return protocol == nullptr ? describe_foreign(frame) : protocol->describe(frame);
}

std::string fault_list(const char *before, FaultSet set) {
    std::string out;
    for (size_t i = 0; i < kFaultKinds; i++) {
        if (set.has(static_cast<Fault>(i))) {
            out += (out.empty() ? before : " ") + std::string(kFaultNames[i]);
        }
    }
    return out.empty() ? out : out + "]";
}

} // namespace

std::string trace_received(const std::string &link, const Arrival &arrival,
                           const Outcome &outcome) {
    return line_head(link, arrival.now_us, "rx", arrival.frame.size()) +
           describe(outcome.protocol, arrival.frame) + outcome.remark + " -> " +
           disposition_text(outcome.disposition) + (outcome.resend ? ", a resend" : "") +
           fault_list(" [", outcome.faults);
}

std::string trace_sent(const std::string &link, uint64_t now_us, const Reply &reply) {
    return line_head(link, now_us, reply.copies == 0 ? "--" : "tx", reply.size) +
           describe(reply.protocol, reply.frame()) + (reply.copies == 0 ? " -> not sent" : "") +
           fault_list(" [", reply.faults);
}

} // namespace card
