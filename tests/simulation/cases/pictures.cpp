// Pictures both ways, and firmware.
#include "cases/cases.h"

#include "calls/files.h"
#include "scheduler/choices.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/card.h"
#include "world/host.h"
#include "world/picture_card.h"
#include "world/roughness.h"
#include "world/service_client.h"

#include "ap_msg/ap_msg.h"
#include "raw_msg/raw_msg.h"

#include <algorithm>

namespace sim {

namespace {

constexpr uint32_t kAnyPosts = 400;

uint8_t pixel_byte(size_t at) {
    return static_cast<uint8_t>(at * 2654435761U >> 21);
}

std::vector<uint8_t> pixels(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; i++) {
        bytes[i] = pixel_byte(i);
    }
    return bytes;
}

bool was_quiet() {
    return !is_excused() && stolen_time() == 0;
}

// Plain writes carry no numbers: a picture that overtakes itself is another picture.
void begin(bool is_rough) {
    if (is_rough) {
        choose_roughness();
    } else {
        choose_busy_processor();
    }
    g_settings.keeps_order = true;
    start_host();
    expect_posts(0, kAnyPosts);
}

// Into the memory behind an FPGA and back; another thread's requests go between.
void ddr2_both_ways() {
    constexpr uint32_t kWidth = 20;
    constexpr uint16_t kHeight = 10; // one block of 1400 bytes: the next would begin 8 bytes late
    constexpr size_t kSize = size_t{kWidth} * kHeight * 4;
    constexpr int kIndex = 1;
    begin(true);
    link_up(kIndex);
    const std::vector<uint8_t> picture = pixels(kSize);
    const int other = start_host_thread("sender 1", [] { request(kIndex, Form::kReadWait, 4); });
    DDR2Write('e', 1, 0x10, kWidth, kHeight, picture.data(), 0);
    host_sleep(20);
    std::vector<uint8_t> back(kSize);
    DDR2Read(kIndex, 1, 2, 0x10, kWidth, kHeight, back.data());
    if (was_quiet() && back != picture) {
        fail("a picture came back from the card as another one");
    }
    join_host_thread(other);
    finish();
}

// Through the service's file thread, both ways, while a client reads registers.
void pictures_by_service() {
    constexpr uint32_t kWidth = 16;
    constexpr uint32_t kHeight = 8;
    begin(g_choices.pick(2) == 0);
    link_up(0);
    start_service();
    put_file("in.txt", pixels(size_t{kWidth} * kHeight * 3));
    const ServiceRequest put{.requester = 0xA1100,
                             .code = kPutPictureCode,
                             .slot = 2,
                             .model = 1,
                             .addr = 0,
                             .len = 0,
                             .data = picture_data(kWidth, kHeight, "in.txt")};
    const ServiceRequest get{.requester = 0xA1100,
                             .code = kGetPictureCode,
                             .slot = 2,
                             .model = 1,
                             .addr = 0,
                             .len = 0,
                             .data = picture_data(kWidth, kHeight, "out.txt")};
    for (ServiceRequest request : {put, get}) {
        request.len = static_cast<uint32_t>(request.data.size());
        send_to_service(message_of(request));
        host_sleep(4000); // the hand-over holds one request: the next would take its place
    }
    request(0, Form::kReadWait, 4);
    const std::vector<uint8_t> *out = file_content("out.txt");
    const std::vector<uint8_t> *in = file_content("in.txt");
    if (was_quiet() && port_pixels(0) != *in) {
        fail("the card's picture port has got %zu bytes of another picture", port_pixels(0).size());
    }
    if (was_quiet() && (out == nullptr || out->size() != size_t{kWidth} * kHeight * 4)) {
        fail("no picture has come back");
    }
    finish();
}

void firmware() {
    constexpr size_t kSize = 2500;
    constexpr size_t kHead = 256;
    begin(true);
    link_up(0);
    put_file("card.bin", pixels(kSize));
    const int other = start_host_thread("sender 1", [] { request(0, Form::kRead, 4); });
    const int result = update_firmware(2, 0x0102, "card.bin");
    const Frame &image = firmware_image(0);
    const bool is_whole = image.size() == kHead + kSize &&
                          std::equal(image.begin() + kHead, image.end(), pixels(kSize).begin());
    if (result == 0 && !is_whole && g_settings.repeat_one_in == 0 &&
        g_settings.send_fails_one_in == 0) {
        fail("an update is reported as done, and the card has %zu bytes", image.size());
    }
    if (result != 0 && was_quiet()) {
        fail("an update failed for no reason");
    }
    join_host_thread(other);
    finish();
}

const Case kCases[] = {
    {"ddr2", "a picture into a card's memory and back", ddr2_both_ways, false},
    {"pictures", "pictures both ways by the service", pictures_by_service, false},
    {"firmware", "an update", firmware, false},
};

} // namespace

std::span<const Case> picture_cases() {
    return kCases;
}

} // namespace sim
