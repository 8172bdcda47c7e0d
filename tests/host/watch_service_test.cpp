// watchServiceActive asks systemctl: here a stand-in on PATH that records its
// arguments and answers with a chosen exit status.
#include "host/watch_service.h"
#include "tests/support/image_files.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_library.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

TEST(WatchService, ActiveOnlyWhenTheUserManagerSaysSo) {
    TempLibrary scratch;
    const auto systemctl = scratch.home() / "systemctl", asked = scratch.home() / "asked";
    ScopedEnv env;
    env.set("PATH", scratch.home().string());

    EXPECT_FALSE(host::watchServiceActive());  // no systemctl at all
    for (const int status : {0, 3, 1}) {        // active, inactive, no user manager
        writeBytes(systemctl, "#!/bin/sh\necho \"$@\" > \"${0%/*}/asked\"\nexit " + std::to_string(status) + "\n");
        chmod(systemctl.c_str(), 0755);
        EXPECT_EQ(host::watchServiceActive(), status == 0) << status;
        EXPECT_EQ(readBytes(asked), "--user --quiet is-active mirel-watch.service\n");
    }
}

}  // namespace
}  // namespace mirel::test
