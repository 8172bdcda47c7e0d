#pragma once
// Screenshots drawn in code for the demo board: simple flat pictures of
// windows, pages and phones, so the board needs no sample files.
#include "core/image/image.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace mirel::host::DemoPictures {

Image checkoutPage(int width, int height);     // a shop's checkout with a pay button
Image couponField(int width, int height);      // a form field with an error message
Image cardForm(int width, int height, int step);  // three steps of one form: 0, 1, 2
Image settingsDark(int width, int height);     // a dark settings panel with toggles
Image colorPicker(int width, int height);      // a grid of colour swatches
Image sidebar(int width, int height);          // an icon sidebar beside a canvas
Image phoneTour(int width, int height);        // a phone screen with an onboarding card
Image barChart(int width, int height);         // a dashboard with many bars
Image dialog(int width, int height);           // a small modal dialog with two buttons
Image desktop(int width, int height);          // a full screen with two windows
Image searchResults(int width, int height);    // a search box with a result list

// Lossy WebP bytes of an opaque image; nothing if the encoder fails.
std::optional<std::vector<std::uint8_t>> encodeWebP(const Image& image, float quality = 85);

}  // namespace mirel::host::DemoPictures
