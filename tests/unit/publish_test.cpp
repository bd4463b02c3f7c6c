// The publisher's parts: how it carries one changed file (SQLite statements, a
// VCDIFF delta or the whole file), the archive inside every package and the
// source tree it reads. The usual choices are pinned by the published round
// trip (publish_roundtrip_test); these are the edge cases it does not reach.
#include <unistd.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "file_delta.h"
#include "file_io.h"
#include "package_craft.h"
#include "publish_error.h"
#include "source_tree.h"
#include "sqlite_diff.h"
#include "tar_writer.h"
#include "test_support.h"
#include "vesk_internal/archive_ptr.h"

using namespace vesk::test;
using vesk::publish::DiffFile;
using vesk::publish::FileMember;
using vesk::publish::MakeSqliteDiff;
using vesk::publish::PublishError;
using vesk::publish::ScanSource;
using vesk::publish::TextMember;
using vesk::publish::WriteTar;

namespace {

void Sql(const std::string& db, const std::string& sql) {
  const CommandResult r = RunCommand({"sqlite3", "-bail", db, sql});
  ASSERT_EQ(r.status, 0) << r.err;
}

std::string Dump(const std::string& db) {
  return RunCommand({"sqlite3", db, ".dump"}).out;
}

// Applies a statement file to `db` in one transaction with the sqlite3 CLI.
void ApplyStatements(const std::string& db, const std::string& statements) {
  const std::string script = db + ".script";
  WriteFile(script, "BEGIN;\n" + ReadFile(statements) + "COMMIT;\n");
  const CommandResult r = RunCommand({"sqlite3", "-bail", db, ".read " + script});
  ASSERT_EQ(r.status, 0) << r.err;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
    lines.push_back(text.substr(start, nl - start));
  return lines;
}

}  // namespace

class FileDeltaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Sql(old_db,
        "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT, note TEXT, data BLOB);"
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
  std::string old_db = dir / "old.db";
  std::string new_db = dir / "new.db";
};

TEST_F(FileDeltaTest, SqliteFilesAreRecognisedByTheirHeader) {
  EXPECT_TRUE(vesk::publish::IsSqliteFile(old_db));
  WriteFile(dir / "text", "SQLite format 3 but not really");
  EXPECT_FALSE(vesk::publish::IsSqliteFile(dir / "text"));
  WriteFile(dir / "short", "SQLite");
  EXPECT_FALSE(vesk::publish::IsSqliteFile(dir / "short"));
}

TEST_F(FileDeltaTest, StatementsBrokenAtNewlinesAreJoinedOnePerLine) {
  Sql(new_db,
      "UPDATE t SET note = 'first' || char(10) || 'second' || char(13) || char(10) || 'third' "
      "WHERE id % 7 = 0;"
      "INSERT INTO t VALUES (1000, 'new', 'a' || char(10) || char(10) || 'b', NULL);"
      "DELETE FROM t WHERE id BETWEEN 50 AND 60;");
  const std::string raw = RunCommand({"sqldiff", old_db, new_db}).out;
  ASSERT_GT(Lines(raw).size(), 0u);

  const std::string out = dir / "delta.sqlitediff";
  std::string why;
  ASSERT_TRUE(MakeSqliteDiff(old_db, new_db, out, Scratch("s"), &why)) << why;
  const std::vector<std::string> lines = Lines(ReadFile(out));
  EXPECT_LT(lines.size(), Lines(raw).size()) << "sqldiff split some statements";
  for (const auto& line : lines) {
    EXPECT_EQ(line.back(), ';') << line;
    EXPECT_EQ(line.find('\n'), std::string::npos);
  }

  const std::string applied = dir / "applied.db";
  boost::filesystem::copy_file(old_db, applied);
  ApplyStatements(applied, out);
  EXPECT_EQ(Dump(applied), Dump(new_db));
}

TEST_F(FileDeltaTest, SourceDatabasesAreLeftAsTheyAre) {
  const std::string src = dir / "src";
  boost::filesystem::create_directories(src);
  boost::filesystem::copy_file(old_db, src + "/old.db");
  boost::filesystem::copy_file(new_db, src + "/new.db");
  Sql(src + "/old.db", "PRAGMA journal_mode = WAL;");
  Sql(src + "/new.db", "PRAGMA journal_mode = WAL; UPDATE t SET name = 'w' WHERE id = 3;");
  const std::string old_bytes = ReadFile(src + "/old.db"), new_bytes = ReadFile(src + "/new.db");
  std::string why;
  ASSERT_TRUE(
      MakeSqliteDiff(src + "/old.db", src + "/new.db", dir / "d.sqlitediff", Scratch("s"), &why))
      << why;
  EXPECT_EQ(ListTree(src), (std::vector<std::string>{"new.db", "old.db"}));
  EXPECT_EQ(ReadFile(src + "/old.db"), old_bytes);
  EXPECT_EQ(ReadFile(src + "/new.db"), new_bytes);
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
}

TEST_F(FileDeltaTest, CreatedDeletedUnchangedAndSmallRewrittenFiles) {
  // "<operation>|<input name>|<input path>|<note>", or "unchanged".
  auto diff = [&](const std::string& name, const std::string& from, const std::string& to) {
    auto e = DiffFile(name, from, to, Scratch("s"));
    return e ? e->operation + "|" + e->input_name + "|" + e->input_path + "|" + e->note
             : std::string("unchanged");
  };
  WriteFile(dir / "a", "same");
  WriteFile(dir / "b", "same");
  EXPECT_EQ(diff("x", dir / "a", dir / "b"), "unchanged");
  EXPECT_EQ(diff("n/x", "", dir / "a"), "create|create/n/x|" + dir / "a" + "|");
  EXPECT_EQ(diff("n/x", dir / "a", ""), "delete|||");
  WriteFile(dir / "b", "different");
  EXPECT_EQ(diff("x", dir / "a", dir / "b"),
            "create|create/x|" + dir / "b" + "|delta not smaller than the file");
}

TEST(TarWriter, SameMembersAndTimeGiveTheSameBytes) {
  TempDir dir;
  WriteFile(dir / "data", std::string(100000, 'd'));
  const std::string long_name = std::string(150, 'n') + "/file";  // needs a pax header
  const std::vector<vesk::publish::TarMember> members{TextMember("index.json", "{}\n"),
                                                      FileMember(long_name, dir / "data")};
  WriteTar(dir / "one.tar.zst", members, 1700000000);
  SetAge(dir / "data", 1000);  // the source file's own time does not matter
  WriteTar(dir / "two.tar.zst", members, 1700000000);
  WriteTar(dir / "three.tar.zst", members, 1700000001);
  EXPECT_EQ(ReadFile(dir / "one.tar.zst"), ReadFile(dir / "two.tar.zst"));
  EXPECT_NE(ReadFile(dir / "one.tar.zst"), ReadFile(dir / "three.tar.zst"));
}

TEST(TarWriter, MembersKeepTheirOrderWithFixedOwnerTimeAndModes) {
  TempDir dir;
  WriteFile(dir / "tool", "#!/bin/sh\n");
  ASSERT_EQ(chmod((dir / "tool").c_str(), 0700), 0);
  WriteFile(dir / "plain", "text");
  WriteTar(dir / "a.tar.zst",
           {TextMember("z.json", "{}"), FileMember("bin/tool", dir / "tool"),
            FileMember("a/plain", dir / "plain")},
           1234567);

  vesk::ArchiveReadPtr reader(archive_read_new());
  archive_read_support_format_tar(reader.get());
  archive_read_support_filter_zstd(reader.get());
  ASSERT_EQ(archive_read_open_filename(reader.get(), (dir / "a.tar.zst").c_str(), 4096),
            ARCHIVE_OK);
  std::vector<std::string> names;
  archive_entry* e = nullptr;
  while (archive_read_next_header(reader.get(), &e) == ARCHIVE_OK) {
    names.push_back(archive_entry_pathname(e));
    EXPECT_EQ(archive_entry_uid(e), 0);
    EXPECT_EQ(archive_entry_gid(e), 0);
    const char* owner = archive_entry_uname(e);
    EXPECT_EQ(std::string(owner != nullptr ? owner : ""), "");
    EXPECT_EQ(archive_entry_mtime(e), 1234567);
    EXPECT_EQ(archive_entry_perm(e), names.back() == "bin/tool" ? 0755 : 0644) << names.back();
  }
  EXPECT_EQ(names, (std::vector<std::string>{"z.json", "bin/tool", "a/plain"}));
}

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
