// Publisher edges publish_roundtrip_test does not reach: SQL statements, source trees.
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>

#include "file_delta.h"
#include "file_io.h"
#include "package_craft.h"
#include "publish_error.h"
#include "source_tree.h"
#include "sqlite_diff.h"
#include "test_support.h"

using namespace vesk::test;
using namespace vesk::publish;

namespace {

void Sql(const std::string& db, const std::string& sql) {
  const CommandResult r = RunCommand({"sqlite3", "-bail", db, sql});
  ASSERT_EQ(r.status, 0) << r.err;
}

size_t Lines(const std::string& text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

class FileDeltaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    boost::filesystem::create_directories(dir / "src");
    Sql(old_db,
        "PRAGMA journal_mode = WAL; CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT, note TEXT, "
        "data BLOB);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 300) "
        "INSERT INTO t SELECT i, 'name ' || i, 'line one' || char(10) || 'line two ' || i, "
        "randomblob(64) FROM n;");
    boost::filesystem::copy_file(old_db, new_db);
  }

  std::string Scratch(const std::string& name) {
    const std::string d = dir / name;
    boost::filesystem::create_directories(d);
    return d;
  }

  TempDir dir;
  std::string old_db = dir / "src/old.db";
  std::string new_db = dir / "src/new.db";
};

TEST_F(FileDeltaTest, StatementsBrokenAtNewlinesAreJoinedOnePerLineAndTheSourcesStayAsTheyAre) {
  Sql(new_db,
      "UPDATE t SET note = 'first' || char(10) || 'second' || char(13) || char(10) || 'third' "
      "WHERE id % 7 = 0;"
      "INSERT INTO t VALUES (1000, 'new', 'a' || char(10) || char(10) || 'b', NULL);"
      "DELETE FROM t WHERE id BETWEEN 50 AND 60;");
  const std::string old_bytes = ReadFile(old_db), new_bytes = ReadFile(new_db);
  const std::string out = dir / "delta.sqlitediff";
  std::string why;
  ASSERT_TRUE(MakeSqliteDiff(old_db, new_db, out, Scratch("s"), &why)) << why;
  const std::string statements = ReadFile(out);
  EXPECT_LT(Lines(statements), Lines(RunCommand({"sqldiff", old_db, new_db}).out))
      << "sqldiff split some statements";
  for (size_t at = statements.find('\n'); at != std::string::npos;
       at = statements.find('\n', at + 1))
    EXPECT_EQ(statements[at - 1], ';') << at;
  EXPECT_EQ(ListTree(dir / "src"), (std::vector<std::string>{"new.db", "old.db"}));
  EXPECT_EQ(ReadFile(old_db), old_bytes);
  EXPECT_EQ(ReadFile(new_db), new_bytes);

  const std::string applied = dir / "applied.db";
  boost::filesystem::copy_file(old_db, applied);
  WriteFile(dir / "script", "BEGIN;\n" + statements + "COMMIT;\n");
  ASSERT_EQ(RunCommand({"sqlite3", "-bail", applied, ".read " + (dir / "script")}).status, 0);
  EXPECT_EQ(RunCommand({"sqlite3", applied, ".dump"}).out,
            RunCommand({"sqlite3", new_db, ".dump"}).out);
}

TEST_F(FileDeltaTest, SqliteChangeBeyondStatementsFallsBackToVcdiff) {
  Sql(new_db, "PRAGMA user_version = 3;");
  auto entry = DiffFile("geo.db", old_db, new_db, Scratch("s"));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->operation, "update");
  EXPECT_EQ(entry->input_name, "vcdiff/geo.db.vcdiff");
  EXPECT_EQ(entry->note, "no SQLite diff: the result's schema or header values differ");
  const CommandResult r = RunCommand({"xdelta3", "-d", "-c", "-s", old_db, entry->input_path});
  EXPECT_EQ(r.out, ReadFile(new_db));
  EXPECT_TRUE(IsSqliteFile(old_db));
  WriteFile(dir / "text", "SQLite format 3 but not really");
  EXPECT_FALSE(IsSqliteFile(dir / "text"));
}

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
