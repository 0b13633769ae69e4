// update_image.h - the temporary file that is sent to a card: a head, then the firmware.
#ifndef AP_MSG_FIRMWARE_UPDATE_IMAGE_H
#define AP_MSG_FIRMWARE_UPDATE_IMAGE_H

enum class Image {
    kWhole,
    kEmpty,   // the firmware could not be opened
    kMissing, // the temporary file could not be opened; an older one may be in its place
    kBroken,  // the firmware is too large, or reading or writing failed half-way (logged)
};

/**
 * Make the temporary file from a firmware file, telling on standard output how it goes. One that is
 * not whole is left empty.
 */
Image make_image(const char *firmware_path);

#endif
