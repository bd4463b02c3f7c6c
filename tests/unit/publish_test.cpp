// Source trees the publisher refuses; its SQL and binary diffs are applied in engine_test.
#include <unistd.h>

#include "publish_error.h"
#include "source_tree.h"
#include "test_support.h"

using namespace vesk::test;
using namespace vesk::publish;

TEST(SourceTree, RefusesWhatCannotBePublishedAndUnsafeIds) {
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
  EXPECT_TRUE(IsValidDatabaseId("geo-ip_v4.db"));
  for (const char* bad : {"", "..", ".hidden", "a/b", "a?b"})
    EXPECT_FALSE(IsValidDatabaseId(bad)) << bad;
}
