#include "host/watch_service.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

extern char** environ;

namespace mirel::host {

namespace {

class SpawnFileActions {
public:
    SpawnFileActions() { ok_ = posix_spawn_file_actions_init(&actions_) == 0; }
    ~SpawnFileActions() {
        if (ok_) posix_spawn_file_actions_destroy(&actions_);
    }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;
    bool ok() const { return ok_; }
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
    bool ok_ = false;
};

}  // namespace

bool watchServiceActive() {
    // `is-active` answers through its exit status alone; its words would only
    // clutter `mirel status`, so both streams go to /dev/null.
    SpawnFileActions actions;
    if (!actions.ok()) return false;
    posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string program = "systemctl", user = "--user", quiet = "--quiet", verb = "is-active", unit = watchServiceName;
    char* argv[] = {program.data(), user.data(), quiet.data(), verb.data(), unit.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, program.c_str(), actions.get(), nullptr, argv, environ) != 0) return false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace mirel::host
