#pragma once
// Libraries driven through the built `mirel` against a real mirel-server: the
// folders and environment of each, `mirel WORDS…` as a child process, and
// `mirel signin` approved through `mirel-server approve`.
#include "tests/support/server_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace bench {

namespace fs = std::filesystem;

inline constexpr const char* kEmail = "ada@example.com";

// One library: its folders and the environment its `mirel` runs with.
struct Device {
    std::string name;
    fs::path home, config;
    std::map<std::string, std::string> env(const std::string& url) const {
        return {{"MIREL_HOME", home.string()},
                {"XDG_CONFIG_HOME", config.string()},
                {"MIREL_API_URL", url},
                {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                {"MIREL_AGENT", ""}};
    }
    // Points this process at the library, for the untimed seeding and checks.
    void enter(const std::string& url) const {
        for (const auto& [key, value] : env(url)) setenv(key.c_str(), value.c_str(), 1);
    }
};

// What a finished `mirel` gave: its exit status, standard output and error.
struct Ran {
    int status = -1;
    std::string out, err;
};

inline std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Starts `mirel WORDS…` for `device`, its standard output in LOGS.out and
// standard error in LOGS.err; gives its process id.
inline pid_t spawnMirel(const Device& device, const std::string& url, const std::vector<std::string>& words,
                        const fs::path& logs) {
    std::vector<std::string> entries;
    const auto env = device.env(url);
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        if (!env.count(entry.substr(0, entry.find('=')))) entries.push_back(entry);
    }
    for (const auto& [key, value] : env) entries.push_back(key + "=" + value);
    std::vector<std::string> argvWords{MIREL_HOST_BINARY};
    argvWords.insert(argvWords.end(), words.begin(), words.end());
    std::vector<char*> argv, envp;
    for (auto& word : argvWords) argv.push_back(word.data());
    argv.push_back(nullptr);
    for (auto& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);

    const fs::path outPath = logs.string() + ".out", errPath = logs.string() + ".err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error("can't start " + argvWords[0]);
    return pid;
}

// `mirel WORDS…` to its end, its output polled while it runs when `onOutput` is given.
inline Ran runMirel(const Device& device, const std::string& url, const std::vector<std::string>& words,
                    const fs::path& logs, const std::function<void(const std::string&)>& onOutput = {}) {
    const pid_t pid = spawnMirel(device, url, words, logs);
    const fs::path outPath = logs.string() + ".out", errPath = logs.string() + ".err";
    int raw = 0;
    if (onOutput) {
        while (::waitpid(pid, &raw, WNOHANG) == 0) {
            onOutput(readText(outPath));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    } else {
        ::waitpid(pid, &raw, 0);
    }
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), readText(outPath), readText(errPath)};
}

// `mirel signin`, approved with `mirel-server approve` as soon as the code shows.
inline void signIn(const mirel::test::ServerProcess& server, const Device& device, const fs::path& scratch) {
    bool approved = false;
    const Ran ran = runMirel(device, server.url(), {"signin"}, scratch / (device.name + "-signin"),
                             [&](const std::string& out) {
                                 const auto at = out.find("Code: ");
                                 if (approved || at == std::string::npos || out.find('\n', at) == std::string::npos) return;
                                 const std::string code = out.substr(at + 6, out.find('\n', at) - at - 6);
                                 const auto result = server.admin({"approve", code, "--user", kEmail});
                                 if (result.status != 0) throw std::runtime_error("approve failed: " + result.text);
                                 approved = true;
                             });
    if (ran.status != 0) throw std::runtime_error(device.name + ": mirel signin failed: " + ran.err);
}

}  // namespace bench
