#include "server/event_hub.h"

#include <algorithm>

namespace mirel::server {

std::shared_ptr<EventHub::Subscriber> EventHub::subscribe(std::set<std::string> workspaces) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (stopping_ || subscribers_.size() >= maxStreams_) return nullptr;
    auto subscriber = std::make_shared<Subscriber>(std::move(workspaces));
    subscribers_.push_back(subscriber);
    return subscriber;
}

void EventHub::unsubscribe(const std::shared_ptr<Subscriber>& subscriber) {
    std::lock_guard<std::mutex> guard(mutex_);
    subscribers_.erase(std::remove(subscribers_.begin(), subscribers_.end(), subscriber), subscribers_.end());
    changed_.notify_all();
}

void EventHub::setWorkspaces(const std::shared_ptr<Subscriber>& subscriber, std::set<std::string> workspaces) {
    std::lock_guard<std::mutex> guard(mutex_);
    subscriber->workspaces_ = std::move(workspaces);
}

void EventHub::publish(const std::vector<LiveEvent>& events) {
    if (events.empty()) return;
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& subscriber : subscribers_) {
        for (const auto& event : events) {
            if (!subscriber->workspaces_.count(event.workspaceID)) continue;
            if (subscriber->queue_.size() >= kQueueLimit) {
                subscriber->overflowed_ = true;
                continue;
            }
            subscriber->queue_.push_back(event.text);
        }
    }
    changed_.notify_all();
}

EventHub::Wake EventHub::wait(const std::shared_ptr<Subscriber>& subscriber, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return stopping_ || !subscriber->queue_.empty(); });
    Wake wake;
    wake.stopping = stopping_;
    if (subscriber->overflowed_) {
        // Only the last one matters to a client that syncs on any event.
        subscriber->queue_.erase(subscriber->queue_.begin(), subscriber->queue_.end() - 1);
        subscriber->overflowed_ = false;
    }
    wake.texts.assign(subscriber->queue_.begin(), subscriber->queue_.end());
    subscriber->queue_.clear();
    return wake;
}

void EventHub::stop(std::chrono::milliseconds grace) {
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
    changed_.wait_for(lock, grace, [&] { return subscribers_.empty(); });
}

std::size_t EventHub::streamCount() {
    std::lock_guard<std::mutex> guard(mutex_);
    return subscribers_.size();
}

}  // namespace mirel::server
