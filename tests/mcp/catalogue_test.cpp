#include "mcp/tools/tool_registry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

namespace mirel {
namespace {

const std::string kSnapshot = std::string(MIREL_SOURCE_DIR) + "/tests/mcp/snapshots/tools_list.json";

// The catalogue as the client receives it in the tools/list result.
std::string wireBytes() { return writeJSON(Json{{"tools", ToolRegistry::definitions()}}); }

// A deliberate change to the catalogue is recorded with
// MIREL_UPDATE_SNAPSHOTS=1 and reviewed in the diff.
TEST(Catalogue, MatchesTheCheckedInSnapshotByteForByte) {
    if (std::getenv("MIREL_UPDATE_SNAPSHOTS")) {
        std::ofstream(kSnapshot, std::ios::binary) << wireBytes();
        GTEST_SKIP() << "snapshot rewritten";
    }
    std::ifstream file(kSnapshot, std::ios::binary);
    ASSERT_TRUE(file) << "missing " << kSnapshot;
    const std::string snapshot{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    EXPECT_EQ(wireBytes(), snapshot);
}

TEST(Catalogue, ListsTheNineToolsInOrder) {
    const Json& tools = ToolRegistry::definitions();
    const char* const names[] = {"list_captures",  "get_capture",    "claim_capture",
                                 "comment_on_capture", "resolve_capture", "reopen_capture",
                                 "update_capture", "list_groups",    "capture_stats"};
    ASSERT_EQ(tools.size(), std::size(names));
    for (std::size_t i = 0; i < tools.size(); ++i) EXPECT_EQ(tools[i]["name"], names[i]);
}

void checkProperty(const std::string& where, const Json& property) {
    SCOPED_TRACE(where);
    ASSERT_TRUE(property.is_object());
    ASSERT_TRUE(property.contains("type"));
    static const std::set<std::string> types{"string", "integer", "boolean", "array"};
    EXPECT_TRUE(types.count(property["type"].get<std::string>()));
    if (property.contains("description")) {
        EXPECT_FALSE(property["description"].get<std::string>().empty());
    }
    if (property["type"] == "array") {
        ASSERT_TRUE(property.contains("items"));
        checkProperty(where + ".items", property["items"]);
    }
    if (property.contains("enum")) {
        EXPECT_TRUE(property["enum"].is_array());
        EXPECT_FALSE(property["enum"].empty());
    }
    if (property.contains("minimum")) {
        EXPECT_EQ(property["type"], "integer");
        EXPECT_LT(property["minimum"].get<int>(), property["maximum"].get<int>());
    }
}

TEST(Catalogue, SchemasAreWellFormed) {
    for (const Json& tool : ToolRegistry::definitions()) {
        const std::string name = tool["name"];
        SCOPED_TRACE(name);
        EXPECT_EQ(tool.size(), 3u);
        EXPECT_FALSE(tool["description"].get<std::string>().empty());
        const Json& schema = tool["inputSchema"];
        EXPECT_EQ(schema["type"], "object");
        EXPECT_EQ(schema["additionalProperties"], false);
        ASSERT_TRUE(schema["properties"].is_object());
        for (const auto& [key, property] : schema["properties"].items()) checkProperty(name + "." + key, property);
        // Every required key is a declared property.
        for (const Json& key : schema.value("required", Json::array())) {
            EXPECT_TRUE(schema["properties"].contains(key.get<std::string>()));
        }
    }
}

TEST(Catalogue, OnlyTheWritingToolsRequireArguments) {
    const std::pair<const char*, const char*> required[] = {
        {"list_captures", nullptr},      {"get_capture", nullptr},      {"claim_capture", R"(["id"])"},
        {"comment_on_capture", R"(["id","body"])"}, {"resolve_capture", R"(["id"])"}, {"reopen_capture", R"(["id"])"},
        {"update_capture", R"(["id"])"}, {"list_groups", nullptr},      {"capture_stats", nullptr},
    };
    const Json& tools = ToolRegistry::definitions();
    for (std::size_t i = 0; i < std::size(required); ++i) {
        const auto& [name, keys] = required[i];
        SCOPED_TRACE(name);
        const Json& schema = tools[i]["inputSchema"];
        if (keys) {
            EXPECT_EQ(writeJSON(schema["required"]), keys);
        } else {
            EXPECT_FALSE(schema.contains("required"));
        }
    }
    EXPECT_TRUE(tools[7]["inputSchema"]["properties"].empty());
    EXPECT_TRUE(tools[8]["inputSchema"]["properties"].empty());
}

}  // namespace
}  // namespace mirel
