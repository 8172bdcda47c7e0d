#pragma once
// A child program with its standard input and output on pipes and its
// standard error on /dev/null: how the benchmarks talk to mirel-mcp.
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <stdexcept>

extern char** environ;

struct PipedChild {
    pid_t pid = -1;
    int input = -1;   // write end of the child's standard input
    int output = -1;  // read end of the child's standard output
};

inline PipedChild spawnPiped(const char* program) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>(program), nullptr};
    PipedChild child;
    const int failed = posix_spawn(&child.pid, program, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    if (failed != 0) {
        ::close(in[1]);
        ::close(out[0]);
        throw std::runtime_error("spawn");
    }
    child.input = in[1];
    child.output = out[0];
    return child;
}
