#include "tests/support/temp_library.h"

#include <cstdlib>
#include <stdexcept>

namespace mirel::test {

TempLibrary::TempLibrary() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mirel-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    home_ = pattern;
    if (const char* previous = std::getenv("MIREL_HOME")) {
        hadPreviousHome_ = true;
        previousHome_ = previous;
    }
    setenv("MIREL_HOME", home_.c_str(), 1);
}

TempLibrary::~TempLibrary() {
    if (hadPreviousHome_) setenv("MIREL_HOME", previousHome_.c_str(), 1);
    else unsetenv("MIREL_HOME");
    std::error_code ignored;
    std::filesystem::permissions(home_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(home_, ignored);
}

}  // namespace mirel::test
