// The tool catalogue is pinned byte for byte by a checked-in snapshot; a
// deliberate change is recorded with MIREL_UPDATE_SNAPSHOTS=1 and reviewed in
// the diff. The checks below hold whatever the snapshot says.
#include "mcp/tools/tool_registry.h"
#include "tests/support/snapshot.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

TEST(Catalogue, MatchesTheSnapshot) {
    test::expectSnapshot("tools_list.json", writeJSON(Json{{"tools", ToolRegistry::definitions()}}));
}

// What a client needs to build a call: every property typed, arrays with
// their items, and only declared properties required.
void checkProperty(const std::string& where, const Json& property) {
    EXPECT_TRUE(property.contains("type")) << where;
    if (property.value("type", "") == "array") checkProperty(where + ".items", property.value("items", Json::object()));
}

TEST(Catalogue, SchemasAreClosedAndTyped) {
    for (const Json& tool : ToolRegistry::definitions()) {
        const std::string name = tool["name"];
        const Json& schema = tool["inputSchema"];
        EXPECT_EQ(schema["type"], "object") << name;
        EXPECT_EQ(schema["additionalProperties"], false) << name;
        for (const auto& [key, property] : schema["properties"].items()) checkProperty(name + "." + key, property);
        for (const Json& key : schema.value("required", Json::array()))
            EXPECT_TRUE(schema["properties"].contains(key.get<std::string>())) << name << " requires " << key;
    }
}

}  // namespace
}  // namespace mirel
