// watchServiceActive asks systemctl, here a stand-in on PATH that records its
// arguments and answers with a chosen exit status.
#include "host/watch_service.h"
#include "tests/support/image_files.h"
#include "tests/support/scoped_env.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

TEST(WatchService, ActiveOnlyWhenTheUserManagerSaysSo) {
    std::string pattern = (fs::temp_directory_path() / "mirel-systemctl-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const fs::path bin = pattern, asked = bin / "asked";
    ScopedEnv env;
    env.set("PATH", bin.string());

    const struct {
        const char* script;  // nullptr: no systemctl at all
        bool active;
    } cases[] = {
        {"#!/bin/sh\necho \"$@\" > \"${0%/*}/asked\"\nexit 0\n", true},
        {"#!/bin/sh\necho \"$@\" > \"${0%/*}/asked\"\nexit 3\n", false},  // inactive
        {"#!/bin/sh\necho 'Failed to connect to bus' >&2\nexit 1\n", false},         // no user manager
        {nullptr, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script ? c.script : "missing");
        fs::remove(asked);
        fs::remove(bin / "systemctl");
        if (c.script) {
            writeBytes(bin / "systemctl", c.script);
            chmod((bin / "systemctl").c_str(), 0755);
        }
        EXPECT_EQ(host::watchServiceActive(), c.active);
        if (c.active) {
            EXPECT_EQ(readBytes(asked), "--user --quiet is-active mirel-watch.service\n");
        }
    }
    fs::remove_all(bin);
}

}  // namespace
}  // namespace mirel::test
