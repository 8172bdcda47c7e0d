#include "core/platform/change_signal.h"

namespace mirel::ChangeSignal {

void post() {}

}  // namespace mirel::ChangeSignal
