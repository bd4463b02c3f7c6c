// The plan of an update over a temporary tree: every refusal and every
// operation of a diff package's index, a full package's names, the check of
// targets against links already installed, and of a package's binding.
#include "package_plan.h"

#include <gtest/gtest.h>
#include <json/writer.h>
#include <limits.h>

#include <boost/filesystem.hpp>

#include "dataupdate/io_utils.h"
#include "dataupdate/updater.h"
#include "forked_child.h"
#include "journal.h"
#include "package_binding.h"
#include "staged_tree.h"
#include "test_support.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

// `name` as a JSON string literal; a NUL byte as \u0000.
std::string Quoted(const std::string& name) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, Json::Value(name));
}

std::string Entry(const std::string& name, const std::string& operation, const std::string& input) {
  return Quoted(name) + R"(: {"operation": ")" + operation + R"(", "input_file": )" +
         Quoted(input) + "}";
}

class PackagePlanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* file : {"install/readme.txt", "install/sub/t.txt", "outside/x",
                             "delta/new.txt", "delta/deep/in.txt", "delta/d.vcdiff",
                             "delta/d.sqlitediff", "delta/d.bsdiff", "delta/dir/x"})
      WriteFile(dir / file, "x");
    fs::create_symlink(dir / "outside", install + "/out");
    fs::create_symlink("new.txt", delta + "/link.txt");
    fs::create_symlink("deep", delta + "/linked");
    fs::create_symlink(".", install + "/here");
  }

  std::vector<PatchStep> PlanIndex(const std::string& text, const Plan& earlier = {}) {
    return PlanDiffVersion(ParseJson(text), delta + "/patch_infos.json", delta, install,
                           dir / "sum", earlier);
  }

  TempDir dir;
  std::string install = dir / "install";
  std::string delta = dir / "delta";
};

TEST_F(PackagePlanTest, EveryRefusalOfADiffIndexNamesTheEntryAndTheReason) {
  const std::string long_component(NAME_MAX + 1, 'n');
  std::string long_path;  // short enough alone, too long below the prefix
  while (long_path.size() + 4 < PATH_MAX)
    long_path += "/dir";
  const std::string bad = "empty, \".\" or \"..\" component in the name";
  const std::string too_long = "name longer than the system allows";
  const std::string not_relative = "\"input_file\" must be a relative name inside the package";
  const std::string not_file = "\"input_file\" is not a regular file in the package";
  const std::string link = "it leads outside the install directory through a link";
  struct Row {
    std::string name, operation, input, shown, reason;
  };
  const std::vector<Row> rows{
      {"/../x", "delete", "", "/../x", bad},
      {"/sub/./t.txt", "create", "new.txt", "/sub/./t.txt", bad},
      {"/sub//t.txt", "delete", "", "/sub//t.txt", bad},
      {"x", "create", "new.txt", "x", "the name must begin with \"/\""},
      {std::string("/ok\0/../x", 9), "delete", "", "/ok\\x00/../x", "NUL in the name"},
      {"/" + long_component, "delete", "", ("/" + long_component).substr(0, 200) + "...", too_long},
      {long_path, "delete", "", long_path.substr(0, 200) + "...", too_long},
      {"/out/x", "create", "new.txt", "/out/x", link},
      {"/here", "delete", "", "/here", link},  // the install directory itself
      {"/a", "create", "../install/readme.txt", "/a", not_relative},
      {"/a", "update", install + "/readme.txt", "/a", not_relative},
      {"/a", "create", "", "/a", not_relative},
      {"/a", "create", "link.txt", "/a", not_file},
      {"/a", "create", "linked/in.txt", "/a", not_file},
      {"/a", "create", "dir", "/a", not_file},
      {"/a", "update", "gone.vcdiff", "/a", not_file},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.shown + " " + row.input);
    EXPECT_UPDATE_ERROR(PlanIndex("{" + Entry(row.name, row.operation, row.input) + "}"),
                        "Invalid patch info for " + row.shown + ": " + row.reason);
  }
  const std::vector<std::pair<std::string, std::string>> shapes{
      {R"({"/a": "create"})", "Invalid patch info for /a: not an object"},
      {R"({"/a": {"input_file": "new.txt"}})",
       "Invalid patch info for /a: \"operation\" is not a string"},
      {R"({"/a": {"operation": "delete", "input_file": []}})",
       "Invalid patch info for /a: \"input_file\" is not a string"},
      {"{" + Entry("/a.b", "create", "new.txt") + ", " + Entry("/a_b", "delete", "") + "}",
       "Invalid patch info for /a_b: its temporary file is also that of /a.b"},
      {"[]", "Invalid patch infos: " + delta + "/patch_infos.json"},
      {"{" + Entry("/a", "move", "new.txt") + "}", "Unknown operation move for file /a"},
      {"{" + Entry("/a", "update", "d.bsdiff") + "}", "Unsupported diff type: .bsdiff"},
      // Every name is checked before any operation.
      {"{" + Entry("/a", "move", "") + ", " + Entry("/b/../c", "delete", "") + "}",
       "Invalid patch info for /b/../c: " + bad},
  };
  for (const auto& [index, error] : shapes)
    EXPECT_UPDATE_ERROR(PlanIndex(index), error);
  EXPECT_UPDATE_ERROR(PlanIndex("{" + Entry("/a_b", "delete", "") + "}",
                                {{"/a.b", ModifyInfo{ModifyInfo::kOverride, "p"}}}),
                      "Invalid patch info for /a_b: its temporary file is also that of /a.b");
}

TEST_F(PackagePlanTest, AcceptableEntriesBecomeStepsInNameOrder) {
  const std::string odd = "/odd \x01\t\"q\" back\\slash \xc3\xbf\n.txt";  // stays inside
  const auto steps = PlanIndex("{" + Entry(odd, "create", "deep/in.txt") + ", " +
                                   Entry("/gone", "delete", "../../not/read") + ", " +
                                   Entry("/sub/t.txt", "update", "d.vcdiff") + "}",
                               {{"/sub/t.txt", ModifyInfo{ModifyInfo::kOverride, "p"}}});
  ASSERT_EQ(steps.size(), 3u);
  EXPECT_EQ(steps[0].name, "/gone");
  EXPECT_EQ(steps[0].Result().operation, ModifyInfo::kDelete);
  EXPECT_EQ(steps[1].input, delta + "/deep/in.txt");
  EXPECT_EQ(steps[1].prepared, dir / "sum/" + FlatFileName(odd));
  EXPECT_EQ(steps[1].Result().operation, ModifyInfo::kOverride);
  EXPECT_EQ(steps[2].decoder, PatchStep::Decoder::kVcdiff);
}

// A full package's names are those of its files, which must lie inside it.
TEST_F(PackagePlanTest, TargetsMustResolveInsideAlsoThroughInstalledLinks) {
  fs::create_symlink(install + "/readme.txt", delta + "/escape");
  EXPECT_UPDATE_ERROR(PlanFullPackage(delta), "Fail to calculate modify info: path not in base");
  const auto plan = [](const std::string& name) { return Plan{{name, ModifyInfo{}}}; };
  EXPECT_NO_THROW(CheckTargetsInside(plan("readme.txt"), install));
  EXPECT_NO_THROW(CheckTargetsInside(plan("/sub/new/t.txt"), install));
  for (const char* outside : {"out/x", "/out/new", "here", "../outside/x"})
    EXPECT_UPDATE_ERROR(CheckTargetsInside(plan(outside), install),
                        "Refused to write outside the install directory: " +
                            (fs::path(install) / outside).string());
}

}  // namespace

// A verified package installs only what was asked for: its database and kind,
// the announced version (an older or a newer one is someone else's) and, for a
// diff, the version it starts from.
TEST(PackageBindingTest, OnlyTheAskedDatabaseKindVersionAndStartAreAccepted) {
  const auto bound = [](const std::string& database, int version, int from) {
    PackageBinding b;
    b.database = database, b.version = version, b.full = from < 0, b.from = from;
    return b;
  };
  const ExpectedBinding full{"db1", 3, true, -1, false}, diff{"db1", 3, false, 2, false};
  const ExpectedBinding any{"db1", 0, true, -1, true};
  const std::string want_full = ", expected db1 3 (full)",
                    want_diff = ", expected db1 3 (diff from 2)";
  const std::tuple<PackageBinding, ExpectedBinding, std::string> rows[] = {
      {bound("db1", 3, -1), full, ""},
      {bound("db1", 9, -1), any, ""},
      {bound("db1", 3, 2), diff, ""},
      {bound("db1", 4, -1), full, "db1 4 (full)" + want_full},
      {bound("db1", 2, -1), full, "db1 2 (full)" + want_full},
      {bound("db2", 3, -1), full, "db2 3 (full)" + want_full},
      {bound("db1", 3, 2), full, "db1 3 (diff from 2)" + want_full},
      {bound("db1", 3, 1), diff, "db1 3 (diff from 1)" + want_diff},
      {bound("db1", 3, -1), diff, "db1 3 (full)" + want_diff},
      {bound("db2", 9, -1), any, "db2 9 (full), expected db1 (full)"},
  };
  for (const auto& [actual, expected, error] : rows) {
    SCOPED_TRACE(error);
    if (error.empty())
      EXPECT_NO_THROW(CheckBinding(actual, expected));
    else
      EXPECT_UPDATE_ERROR(CheckBinding(actual, expected), "package is for " + error);
  }
}

// The binding's text says exactly one thing: a full package names no start, and
// each manifest digest is 96 lower-case hex digits.
TEST(PackageBindingTest, AnAmbiguousBindingTextIsRefused) {
  const auto text = [](const std::string& kind, const std::string& digest) {
    return R"({"database": "db1", "version": 3, )" + kind + R"(, "manifest": {"a": {"sha384": ")" +
           digest + R"(", "size": 1}}})";
  };
  const std::string digest(96, 'a'), full = R"("kind": "full")";
  EXPECT_EQ(ParseBinding(text(full, digest), "p").manifest.at("a").sha384, digest);
  EXPECT_UPDATE_ERROR(ParseBinding(text(full + R"(, "from": 2)", digest), "p"),
                      "Invalid package binding (a full package starts from no version): p");
  for (const std::string& bad : {digest + "a", digest.substr(1), digest.substr(1) + "A"})
    EXPECT_UPDATE_ERROR(ParseBinding(text(full, bad), "p"),
                        "Invalid package binding (manifest entry of a): p");
}

// A chain may be taken only where the installed files are those of the release
// it starts from, and only the manifest of the installed release vouches.
TEST(ManifestTest, AChainNeedsTheListedSizesAndAStoredManifestItsOwnRelease) {
  const Sandbox sandbox;
  const std::string prefix = sandbox / "install";
  WriteFile(prefix + "/a", "abc");
  const Manifest manifest{{"a", ManifestEntry{std::string(96, 'a'), 4}}};
  EXPECT_UPDATE_ERROR(CheckChainLeadsToManifest(manifest, {}, prefix),
                      "Diff chain does not lead to the published release: a is not the size "
                      "the release lists");
  WriteStoredManifest("db1", 2, manifest);
  EXPECT_TRUE(ReadStoredManifest("db1", 2));
  EXPECT_FALSE(ReadStoredManifest("db1", 3));
  // A database never installed is said to be so, not to have failed a check.
  const LogCapture log;
  EXPECT_TRUE(Fixer("db1", RemoteInfo(2, 0, false, ""), prefix, prefix, prefix)
                  .IsFixNeeded(DatabaseStatus{-1, 0, {}}));
  EXPECT_EQ(log.Matching("not been updated yet").size(), 1u);
}

// Killed between the two renames of an exchange (a file system without
// RENAME_EXCHANGE): the whole new tree is staged and the install directory
// gone, so the next command puts the new tree in its place.
TEST(ManifestTest, AStagedTreeReadyForItsPlaceIsPutThereByTheNextCommand) {
  const Sandbox sandbox;
  const std::string install = sandbox / "v/db1", staging = sandbox / "v/.db1.staging";
  WriteFile(staging + "/a", "new");
  WriteFile(sandbox / "v/.db1.old/a", "old");
  Json::Value record;
  record["id"] = "db1", record["install"] = install, record["staging"] = staging;
  record["old"] = sandbox / "v/.db1.old", record["state"] = "ready";
  journal::Write("tree_db1", record);
  RecoverStagedTrees();
  EXPECT_EQ(ReadFile(install + "/a"), "new");
  EXPECT_FALSE(fs::exists(staging) || fs::exists(sandbox / "v/.db1.old"));
}
