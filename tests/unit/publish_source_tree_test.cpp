// The publisher's source tree: SOURCE/<id>/<version>/<files...>.
#include "source_tree.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "publish_error.h"
#include "test_support.h"

using namespace vesk::test;
using vesk::publish::PublishError;
using vesk::publish::ScanSource;

TEST(SourceTree, ReadsDatabasesVersionsAndNestedFiles) {
  TempDir src;
  WriteFile(src / "geo/1/geo.db", "a");
  WriteFile(src / "geo/10/geo.db", "b");
  WriteFile(src / "geo/2/sub/deep/x", "c");
  WriteFile(src / "docs/0/a.txt", "d");
  WriteFile(src / ".hidden-note", "ignored");
  SetAge(src / "geo/2/sub/deep/x", 50);
  SetAge(src / "geo/1/geo.db", 100);

  const auto dbs = ScanSource(src.path());
  ASSERT_EQ(dbs.size(), 2u);
  EXPECT_EQ(dbs[0].id, "docs");
  EXPECT_EQ(dbs[1].id, "geo");
  std::vector<int> versions;
  for (const auto& v : dbs[1].versions)
    versions.push_back(v.first);
  EXPECT_EQ(versions, (std::vector<int>{1, 2, 10}));
  const auto& v2 = dbs[1].versions.at(2);
  ASSERT_EQ(v2.files.size(), 1u);
  EXPECT_EQ(v2.files.begin()->first, "sub/deep/x");
  EXPECT_EQ(v2.files.begin()->second, src / "geo/2/sub/deep/x");
  EXPECT_EQ(v2.newest_mtime + 50 - dbs[1].versions.at(1).newest_mtime, 100);
}

TEST(SourceTree, RefusesWhatCannotBePublished) {
  for (const char* bad : {"geo/1/link", "geo/01/f", "geo/latest/f", "geo db/1/f", "readme"}) {
    TempDir src;
    WriteFile(src / "geo/1/ok", "x");
    if (std::string(bad) == "geo/1/link")
      ASSERT_EQ(symlink("ok", (src / bad).c_str()), 0);
    else
      WriteFile(src / bad, "x");
    EXPECT_THROW(ScanSource(src.path()), PublishError) << bad;
  }
  EXPECT_THROW(ScanSource("/nonexistent/source"), PublishError);
}

TEST(SourceTree, DatabaseIdsAreSafeInPathsAndUrls) {
  EXPECT_TRUE(vesk::publish::IsValidDatabaseId("geo-ip_v4.db"));
  for (const char* bad : {"", "..", ".hidden", "a/b", "a?b"})
    EXPECT_FALSE(vesk::publish::IsValidDatabaseId(bad)) << bad;
}
