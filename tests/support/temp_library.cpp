#include "tests/support/temp_library.h"

#include <stdexcept>

namespace mirel::test {

TempLibrary::TempLibrary() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mirel-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    home_ = pattern;
    env_.set("MIREL_HOME", home_.string());
}

TempLibrary::~TempLibrary() {
    std::error_code ignored;  // a test may have taken the owner's rights away
    std::filesystem::permissions(home_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(home_, ignored);
}

}  // namespace mirel::test
