#include "core/sync/content_hash.h"

#include <gtest/gtest.h>

namespace mirel {

TEST(ContentHash, KnownDigestsAndTheHexShapeCheck) {
    EXPECT_EQ(ContentHash::sha256(std::string_view("")),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(ContentHash::sha256(std::string_view("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // Upper case is refused where a download is asked for.
    EXPECT_TRUE(ContentHash::isHexDigest(ContentHash::sha256(std::string_view("x"))));
    EXPECT_FALSE(ContentHash::isHexDigest("../etc"));
    EXPECT_FALSE(ContentHash::isHexDigest(ContentHash::sha256(std::string_view("x")) + "0"));
}

}  // namespace mirel
