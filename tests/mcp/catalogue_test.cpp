// The tool catalogue is pinned byte for byte by a checked-in snapshot; a
// deliberate change is recorded with MIREL_UPDATE_SNAPSHOTS=1 and reviewed in
// the diff. The wire test compares tools/list with the same file.
#include "mcp/tools/tool_registry.h"
#include "tests/support/snapshot.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

TEST(Catalogue, MatchesTheSnapshot) {
    test::expectSnapshot("tools_list.json", writeJSON(Json{{"tools", ToolRegistry::definitions()}}));
}

}  // namespace
}  // namespace mirel
