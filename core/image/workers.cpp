#include "core/image/workers.h"

#include <algorithm>
#include <atomic>
#include <system_error>

namespace mirel::ImageCodec::detail {

int workerCount() {
    static const int count = std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, 4);
    return count;
}

Helpers::Helpers(int count, const std::function<void()>& work) {
    for (int i = 0; i < count; ++i) {
        try {
            threads_.emplace_back(work);
        } catch (const std::system_error&) {
            break;  // fewer helpers; the caller's share grows
        }
    }
}

Helpers::~Helpers() {
    for (std::thread& thread : threads_) thread.join();
}

void parallelFor(int count, const std::function<void(int)>& work) {
    std::atomic<int> next{0};
    auto drain = [&] {
        for (int i = next.fetch_add(1); i < count; i = next.fetch_add(1)) work(i);
    };
    {
        Helpers helpers(std::min(workerCount(), count) - 1, drain);
        drain();
    }
}

}  // namespace mirel::ImageCodec::detail
