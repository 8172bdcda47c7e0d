#pragma once
// The two pages a capture is shown on, read from the store and worded by
// Format: the same text for the agent's tools and resources as for `mirel list`
// and `mirel show`. Store failures pass through to the caller.
#include "core/store/capture_store.h"

#include <string>
#include <vector>

namespace mirel::Pages {

struct DetailPage {
    std::string text;                  // Format::detail
    std::vector<CaptureImage> images;  // the image rows the text lists, in order
};

// The capture in full: group, tags, comments, history and local files.
DetailPage detail(CaptureStore& store, const Capture& capture);

// Format::listLine of each capture, in the given order. Group names, tags and
// counts are read for these captures only, each in one statement, so a page
// costs the same on a board of any size.
std::vector<std::string> listEntries(CaptureStore& store, const std::vector<Capture>& captures);

}  // namespace mirel::Pages
