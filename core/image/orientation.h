#pragma once
// EXIF orientation: how a camera says its picture is to be turned to stand
// upright. Internal to core/image.
#include <cstddef>
#include <cstdint>

#include "core/image/image.h"

namespace mirel::ImageCodec::detail {

// 1 upright, 2 mirrored, 3 turned half round, 4 flipped, 5 transposed,
// 6 to be turned a quarter clockwise, 7 transversed, 8 a quarter anticlockwise.
using Orientation = int;

// The orientation tag of EXIF data (the TIFF structure after "Exif\0\0");
// 1 when it is absent, damaged or out of range.
Orientation exifOrientation(const std::uint8_t* tiff, std::size_t size);

// Whether turning upright swaps width and height.
inline bool swapsAxes(Orientation orientation) { return orientation >= 5 && orientation <= 8; }

// The image turned upright. Throws std::bad_alloc.
Image upright(Image image, Orientation orientation);

}  // namespace mirel::ImageCodec::detail
