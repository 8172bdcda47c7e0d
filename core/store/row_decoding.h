#pragma once
// Row decoders: they never fail, and put fixed fallbacks in place of bad data.
// Internal to core/store; other code reads records through CaptureStore.
#include "core/store/records.h"
#include "core/store/row.h"

namespace mirel::RowDecoding {

Capture decodeCapture(const Row& row);
CaptureGroup decodeGroup(const Row& row);
CaptureImage decodeImage(const Row& row);
Comment decodeComment(const Row& row);
ActivityEvent decodeActivity(const Row& row);
Person decodePerson(const Row& row);
Workspace decodeWorkspace(const Row& row);

}  // namespace mirel::RowDecoding
