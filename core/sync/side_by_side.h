#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace mirel {

// Runs `work` on each item, up to `atOnce` items at the same time: on this
// thread and on helpers that end before this returns. Transfers mostly wait
// on the other side, so a few side by side go faster than one after another.
// `work` gives false to stop the taking of further items; items not taken
// are left as they were.
template <typename Item, typename Work>
void sideBySide(std::vector<Item>& items, std::size_t atOnce, Work work) {
    if (items.empty()) return;
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stopped{false};
    const auto take = [&] {
        for (std::size_t at; !stopped && (at = next++) < items.size();) {
            if (!work(items[at])) stopped = true;
        }
    };
    std::vector<std::jthread> helpers;
    for (std::size_t i = 1; i < std::min(atOnce, items.size()); ++i) helpers.emplace_back(take);
    take();
}

}  // namespace mirel
