#include "core/sync/cancellation.h"

namespace mirel {

Cancellation::Cancellation() : state_(std::make_shared<State>()) {}

void Cancellation::cancel() const {
    std::lock_guard lock(state_->mutex);
    state_->cancelled = true;
    for (const auto& wake : state_->wakers) wake();
}

bool Cancellation::isCancelled() const {
    std::lock_guard lock(state_->mutex);
    return state_->cancelled;
}

Cancellation::Registration Cancellation::onCancel(std::function<void()> wake) const {
    std::lock_guard lock(state_->mutex);
    state_->wakers.push_back(std::move(wake));
    return Registration(state_, std::prev(state_->wakers.end()));
}

Cancellation::Registration::~Registration() {
    // Holding the lock means no cancel() is inside the waker once this returns.
    std::lock_guard lock(state_->mutex);
    state_->wakers.erase(entry_);
}

}  // namespace mirel
