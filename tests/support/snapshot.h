#pragma once
// Checked-in snapshots of whole catalogues and schemas, in tests/mcp/snapshots.
// MIREL_UPDATE_SNAPSHOTS=1 rewrites them instead of comparing; review the diff.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace mirel::test {

inline void expectSnapshot(const std::string& name, const std::string& actual) {
    const std::string path = std::string(MIREL_SOURCE_DIR) + "/tests/mcp/snapshots/" + name;
    if (std::getenv("MIREL_UPDATE_SNAPSHOTS")) {
        std::ofstream(path, std::ios::binary) << actual;
        return;
    }
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << "missing " << path;
    EXPECT_EQ(actual, std::string(std::istreambuf_iterator<char>(file), {})) << "differs from " << path;
}

}  // namespace mirel::test
