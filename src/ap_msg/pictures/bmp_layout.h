// bmp_layout.h - the header of a BMP file, written once. All fields are little-endian.
#ifndef AP_MSG_PICTURES_BMP_LAYOUT_H
#define AP_MSG_PICTURES_BMP_LAYOUT_H

#include "base/field.h"

namespace bmp {
constexpr Field kMagic{0, 2};
constexpr Field kFileSize{2, 4};
constexpr Field kReserved1{6, 2};
constexpr Field kReserved2{8, 2};
constexpr Field kPixelOffset{10, 4};
constexpr Field kInfoSize{14, 4};
constexpr Field kWidth{18, 4};
constexpr Field kHeight{22, 4}; // positive: the bottom row comes first
constexpr Field kPlanes{26, 2};
constexpr Field kBitsPerPixel{28, 2};
constexpr Field kCompression{30, 4};
constexpr Field kImageSize{34, 4};
constexpr Field kResolutionAndPalette{38, 16};
constexpr Field kFields[] = {kMagic,
                             kFileSize,
                             kReserved1,
                             kReserved2,
                             kPixelOffset,
                             kInfoSize,
                             kWidth,
                             kHeight,
                             kPlanes,
                             kBitsPerPixel,
                             kCompression,
                             kImageSize,
                             kResolutionAndPalette};
constexpr uint32_t kHeaderSize = 54;
static_assert(tiles(kFields, kHeaderSize), "gap or overlap in the BMP header");

constexpr uint32_t kMagicValue = 0x4D42; // "BM"
constexpr uint32_t kInfoHeaderSize = 40;
constexpr uint32_t kDepth = 32;
constexpr uint32_t kLargestImage = 0xFFFFFFFF - kHeaderSize; // bytes, for the sake of kFileSize
} // namespace bmp

#endif
