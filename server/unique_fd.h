#pragma once
// A file descriptor closed when its holder goes.
#include <unistd.h>

namespace mirel::server {

class UniqueFD {
public:
    explicit UniqueFD(int fd) : fd_(fd) {}
    ~UniqueFD() {
        if (fd_ >= 0) ::close(fd_);
    }
    UniqueFD(const UniqueFD&) = delete;
    UniqueFD& operator=(const UniqueFD&) = delete;
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

}  // namespace mirel::server
