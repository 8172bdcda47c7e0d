#pragma once
// A temporary library folder set as MIREL_HOME for the life of a test.
#include "tests/support/scoped_env.h"

#include <filesystem>

namespace mirel::test {

class TempLibrary {
public:
    TempLibrary();
    ~TempLibrary();

    const std::filesystem::path& home() const { return home_; }
    std::filesystem::path databasePath() const { return home_ / "mirel.sqlite"; }

private:
    std::filesystem::path home_;
    ScopedEnv env_;
};

}  // namespace mirel::test
