#pragma once
// A temporary library folder set as MIREL_HOME for the life of a test.
#include <filesystem>
#include <string>

namespace mirel::test {

class TempLibrary {
public:
    TempLibrary();
    ~TempLibrary();
    TempLibrary(const TempLibrary&) = delete;
    TempLibrary& operator=(const TempLibrary&) = delete;

    const std::filesystem::path& home() const { return home_; }
    std::filesystem::path databasePath() const { return home_ / "mirel.sqlite"; }

private:
    std::filesystem::path home_;
    std::string previousHome_;
    bool hadPreviousHome_ = false;
};

}  // namespace mirel::test
