#pragma once
// Checked-in snapshots of whole catalogues and schemas, in tests/mcp/snapshots.
// MIREL_UPDATE_SNAPSHOTS=1 rewrites them instead of comparing; review the diff.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace mirel::test {

inline std::string snapshotPath(const std::string& name) {
    return std::string(MIREL_SOURCE_DIR) + "/tests/mcp/snapshots/" + name;
}

inline std::string readSnapshot(const std::string& name) {
    std::ifstream file(snapshotPath(name), std::ios::binary);
    EXPECT_TRUE(file) << "missing " << snapshotPath(name);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

inline void expectSnapshot(const std::string& name, const std::string& actual) {
    if (std::getenv("MIREL_UPDATE_SNAPSHOTS")) {
        std::ofstream(snapshotPath(name), std::ios::binary) << actual;
        return;
    }
    EXPECT_EQ(actual, readSnapshot(name)) << "differs from " << snapshotPath(name);
}

}  // namespace mirel::test
