#pragma once
// Ann in workspace "acme" and Bob in "bobs", each signed in on one device.
#include "tests/support/server_process.h"

#include <gtest/gtest.h>

namespace mirel::test {

class TwoTeamsTest : public ::testing::Test {
protected:
    void SetUp() override {
        server.addUser("ann@example.com", "Ann");
        server.addUser("bob@example.com", "Bob");
        server.addWorkspace("acme", "Acme", {"ann@example.com"});
        server.addWorkspace("bobs", "Bob's", {"bob@example.com"});
        ann = server.signIn("ann@example.com");
        bob = server.signIn("bob@example.com");
        acme = server.workspaceID(ann, "acme");
    }

    ServerProcess server;
    std::string ann, bob, acme;
};

}  // namespace mirel::test
