#pragma once
// Live events: every open /v1/events stream is a subscriber with the
// workspaces it may hear about. Accepted changes are published here after
// their transaction commits; each stream's thread waits on its own queue.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace mirel::server {

struct LiveEvent {
    std::string workspaceID;
    std::string text;  // "event: change\ndata: {…}\n\n"
};

class EventHub {
public:
    explicit EventHub(std::size_t maxStreams) : maxStreams_(maxStreams) {}

    class Subscriber {
    public:
        explicit Subscriber(std::set<std::string> workspaces) : workspaces_(std::move(workspaces)) {}

    private:
        friend class EventHub;
        // Guarded by the hub's mutex_.
        std::set<std::string> workspaces_;
        std::deque<std::string> queue_;
        bool overflowed_ = false;
    };

    // Absent when the server holds as many streams as it may, or is stopping.
    std::shared_ptr<Subscriber> subscribe(std::set<std::string> workspaces);
    void unsubscribe(const std::shared_ptr<Subscriber>& subscriber);
    void setWorkspaces(const std::shared_ptr<Subscriber>& subscriber, std::set<std::string> workspaces);

    void publish(const std::vector<LiveEvent>& events);

    struct Wake {
        std::vector<std::string> texts;  // empty when the wait timed out
        bool stopping = false;
    };
    Wake wait(const std::shared_ptr<Subscriber>& subscriber, std::chrono::milliseconds timeout);

    // Wakes every stream to close, refuses new ones, and waits (up to
    // `grace`) until the last has gone.
    void stop(std::chrono::milliseconds grace);
    std::size_t streamCount();

private:
    // A stream that falls this far behind gets one event instead of many:
    // events are only signals to sync.
    static constexpr std::size_t kQueueLimit = 1000;

    // Constant after construction.
    std::size_t maxStreams_;
    // Guarded by mutex_.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::shared_ptr<Subscriber>> subscribers_;
    bool stopping_ = false;
};

}  // namespace mirel::server
