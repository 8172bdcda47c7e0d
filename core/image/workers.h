#pragma once
// Helper threads for the image work of one request: the caller stays one of
// the workers, so a machine with one core (or a failed thread start) simply
// runs everything on the caller. Internal to core/image.
#include <functional>
#include <thread>
#include <vector>

namespace mirel::ImageCodec::detail {

// Threads worth using for one image: the machine's hardware threads, at most 4
// (more gain little on images of screenshot size).
int workerCount();

// Threads that run `work` beside the caller from construction until they are
// joined by the destructor. `work` must not throw and must return on its own.
class Helpers {
public:
    Helpers(int count, const std::function<void()>& work);
    ~Helpers();
    Helpers(const Helpers&) = delete;
    Helpers& operator=(const Helpers&) = delete;

private:
    std::vector<std::thread> threads_;
};

// Calls work(i) for every i in [0, count), spread over workerCount() threads
// with the caller among them; returns when all calls have returned.
void parallelFor(int count, const std::function<void(int)>& work);

}  // namespace mirel::ImageCodec::detail
