#include "core/sync/content_hash.h"

#include <gtest/gtest.h>

namespace mirel {

TEST(ContentHash, KnownDigestsAndTheHexShapeCheck) {
    EXPECT_EQ(ContentHash::sha256(std::string_view("")),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(ContentHash::sha256(std::string_view("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_TRUE(ContentHash::isHexDigest(ContentHash::sha256(std::string_view("x"))));
    for (std::string_view bad : {"", "../etc", "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD",
                                 "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015a",
                                 "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad0"}) {
        EXPECT_FALSE(ContentHash::isHexDigest(bad)) << bad;
    }
}

}  // namespace mirel
