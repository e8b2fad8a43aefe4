// SPDX-License-Identifier: Apache-2.0
#include "base/Paths.h"

#include <gtest/gtest.h>

namespace {

TEST(Paths, a_path_lies_within_itself_and_what_is_above_it) {
  EXPECT_TRUE(liesWithin("/srv", "/srv"));
  EXPECT_TRUE(liesWithin("/srv/data", "/srv"));
  EXPECT_TRUE(liesWithin("/srv", "/"));
  EXPECT_TRUE(liesWithin("/", "/"));
  EXPECT_FALSE(liesWithin("/", "/srv"));
  EXPECT_FALSE(liesWithin("", "/"));
}

TEST(Paths, a_name_that_only_begins_alike_lies_elsewhere) {
  EXPECT_FALSE(liesWithin("/srv2", "/srv"));
  EXPECT_FALSE(liesWithin("/srv2/data", "/srv"));
  EXPECT_FALSE(liesWithin("/sr", "/srv"));
  EXPECT_TRUE(liesWithin("/a b/c", "/a b"));
}

TEST(Paths, depth_counts_components) {
  EXPECT_EQ(depthOf("/"), 0u);
  EXPECT_EQ(depthOf("/a"), 1u);
  EXPECT_EQ(depthOf("/a/b/c"), 3u);
}

TEST(Paths, are_joined_with_one_slash) {
  EXPECT_EQ(joined("/mnt", "/srv/data"), "/mnt/srv/data");
  EXPECT_EQ(joined("/mnt", "srv"), "/mnt/srv");
  EXPECT_EQ(joined("/mnt//", "//srv"), "/mnt/srv");
  EXPECT_EQ(joined("/", "/srv"), "/srv");
}

TEST(Paths, joined_with_nothing_are_the_base) {
  EXPECT_EQ(joined("/mnt", "/"), "/mnt");
  EXPECT_EQ(joined("/mnt/", ""), "/mnt");
  EXPECT_EQ(joined("/", "/"), "/");
  EXPECT_EQ(joined("", ""), "/");
}

TEST(Paths, are_cut_at_their_last_slash) {
  EXPECT_EQ(lastPart("/sbin/modprobe"), "modprobe");
  EXPECT_EQ(lastPart("modprobe"), "modprobe");
  EXPECT_EQ(lastPart("/sbin/"), "");
  EXPECT_EQ(folderOf("/sbin/modprobe"), "/sbin");
  EXPECT_EQ(folderOf("/modprobe"), "/");
  EXPECT_EQ(folderOf("/"), "/");
}

}  // namespace
