#pragma once
// Sets or clears environment variables for one scope and puts the previous
// values back afterwards, whatever the test did in between.
#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace mirel::test {

class ScopedEnv {
public:
    ScopedEnv() = default;
    ~ScopedEnv() {
        for (const auto& [name, previous] : saved_) {
            if (previous) setenv(name.c_str(), previous->c_str(), 1);
            else unsetenv(name.c_str());
        }
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

    void set(const std::string& name, const std::string& value) {
        remember(name);
        setenv(name.c_str(), value.c_str(), 1);
    }
    void unset(const std::string& name) {
        remember(name);
        unsetenv(name.c_str());
    }

private:
    void remember(const std::string& name) {
        if (saved_.count(name)) return;
        const char* value = std::getenv(name.c_str());
        saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
    }
    std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace mirel::test
