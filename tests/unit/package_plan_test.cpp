// The plan of an update over a temporary tree: every refusal and every
// operation of a diff package's index, a full package's files, and the check
// of targets against links already installed.
#include "package_plan.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <limits.h>

#include <boost/filesystem.hpp>
#include <memory>

#include "dataupdate/io_utils.h"
#include "test_support.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
  return value;
}

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

// A step as "kind decoder name <- input => prepared", paths relative to `dir`.
std::string Shown(const PatchStep& step, const std::string& dir) {
  static const char* const kinds[] = {"create", "update", "delete"};
  static const char* const decoders[] = {"", " vcdiff", " sqlite"};
  return std::string(kinds[static_cast<int>(step.kind)]) +
         decoders[static_cast<int>(step.decoder)] + " " + step.name + " <- " +
         fs::path(step.input).lexically_relative(dir).string() + " => " +
         fs::path(step.prepared).lexically_relative(dir).string();
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
  }

  std::vector<PatchStep> PlanIndex(const std::string& index, const Plan& earlier = {}) {
    return PlanDiffVersion(Parse(index), delta + "/patch_infos.json", delta, install, dir / "sum",
                           earlier);
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
  const std::string not_relative = "\"input_file\" must be a relative name inside the package";
  const std::string not_file = "\"input_file\" is not a regular file in the package";
  const auto refused = [](const std::string& shown, const std::string& reason) {
    return "Invalid patch info for " + shown + ": " + reason;
  };
  struct Row {
    const char* what;
    std::string index;
    std::string error;
  };
  const std::vector<Row> rows{
      {"a climb", "{" + Entry("/../x", "delete", "") + "}", refused("/../x", bad)},
      {"a dot", "{" + Entry("/sub/./t.txt", "create", "new.txt") + "}",
       refused("/sub/./t.txt", bad)},
      {"an empty component", "{" + Entry("/sub//t.txt", "delete", "") + "}",
       refused("/sub//t.txt", bad)},
      {"no leading slash", "{" + Entry("x", "create", "new.txt") + "}",
       refused("x", "the name must begin with \"/\"")},
      {"NUL hiding a climb", "{" + Entry(std::string("/ok\0/../x", 9), "delete", "") + "}",
       refused("/ok\\x00/../x", "NUL in the name")},
      {"component over NAME_MAX", "{" + Entry("/" + long_component, "delete", "") + "}",
       refused(("/" + long_component).substr(0, 200) + "...",
               "name longer than the system allows")},
      {"over PATH_MAX below the prefix", "{" + Entry(long_path, "delete", "") + "}",
       refused(long_path.substr(0, 200) + "...", "name longer than the system allows")},
      {"through an installed link", "{" + Entry("/out/x", "create", "new.txt") + "}",
       refused("/out/x", "it leads outside the install directory through a link")},
      {"input above the package", "{" + Entry("/a", "create", "../install/readme.txt") + "}",
       refused("/a", not_relative)},
      {"absolute input", "{" + Entry("/a", "update", install + "/readme.txt") + "}",
       refused("/a", not_relative)},
      {"empty input", "{" + Entry("/a", "create", "") + "}", refused("/a", not_relative)},
      {"input a link", "{" + Entry("/a", "create", "link.txt") + "}", refused("/a", not_file)},
      {"input below a link", "{" + Entry("/a", "create", "linked/in.txt") + "}",
       refused("/a", not_file)},
      {"input a directory", "{" + Entry("/a", "create", "dir") + "}", refused("/a", not_file)},
      {"input missing", "{" + Entry("/a", "update", "gone.vcdiff") + "}", refused("/a", not_file)},
      {"entry not an object", R"({"/a": "create"})", refused("/a", "not an object")},
      {"operation missing", R"({"/a": {"input_file": "new.txt"}})",
       refused("/a", "\"operation\" is not a string")},
      {"input an array", R"({"/a": {"operation": "delete", "input_file": []}})",
       refused("/a", "\"input_file\" is not a string")},
      {"two names, one temporary file",
       "{" + Entry("/a.b", "create", "new.txt") + ", " + Entry("/a_b", "delete", "") + "}",
       refused("/a_b", "its temporary file is also that of /a.b")},
      {"index not an object", "[]", "Invalid patch infos: " + delta + "/patch_infos.json"},
      {"unknown operation", "{" + Entry("/a", "move", "new.txt") + "}",
       "Unknown operation move for file /a"},
      {"unknown diff type", "{" + Entry("/a", "update", "d.bsdiff") + "}",
       "Unsupported diff type: .bsdiff"},
      {"names checked before operations",
       "{" + Entry("/a", "move", "") + ", " + Entry("/b/../c", "delete", "") + "}",
       refused("/b/../c", bad)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_UPDATE_ERROR(PlanIndex(row.index), row.error);
  }
  EXPECT_UPDATE_ERROR(PlanIndex("{" + Entry("/a_b", "delete", "") + "}",
                                {{"/a.b", ModifyInfo{ModifyInfo::kOverride, "p"}}}),
                      refused("/a_b", "its temporary file is also that of /a.b"));
}

TEST_F(PackagePlanTest, EveryOperationBecomesAStepOnItsTemporaryFile) {
  const std::string odd = "/odd \x01\t\"q\" back\\slash \xc3\xbf\n.txt";
  std::vector<std::string> shown;
  const Plan earlier{{"/readme.txt", ModifyInfo{ModifyInfo::kOverride, "p"}}};
  for (const PatchStep& step : PlanIndex("{" + Entry("/sub/t.txt", "update", "d.vcdiff") + ", " +
                                             Entry("/readme.txt", "update", "d.sqlitediff") + ", " +
                                             Entry("/new/deep.txt", "create", "deep/in.txt") +
                                             ", " + Entry("/gone", "delete", "../../anything") +
                                             ", " + Entry(odd, "create", "new.txt") + "}",
                                         earlier))
    shown.push_back(Shown(step, dir.path()));
  EXPECT_EQ(shown, (std::vector<std::string>{
                       "delete /gone <- delta/../../anything => sum/_gone",
                       "create /new/deep.txt <- delta/deep/in.txt => sum/_new_deep_txt",
                       "create " + odd + " <- delta/new.txt => sum/" + FlatFileName(odd),
                       "update sqlite /readme.txt <- delta/d.sqlitediff => sum/_readme_txt",
                       "update vcdiff /sub/t.txt <- delta/d.vcdiff => sum/_sub_t_txt",
                   }));
  const PatchStep removal = PlanPatch("/gone", "delete", "", "s");
  EXPECT_EQ(removal.Result().operation, ModifyInfo::kDelete);
  EXPECT_EQ(removal.Result().path, "s/_gone");
  EXPECT_EQ(PlanPatch("/a", "create", "i", "s").Result().operation, ModifyInfo::kOverride);
}

TEST_F(PackagePlanTest, AFullPackageWritesEachRegularFileByItsRelativeName) {
  const Plan plan = PlanFullPackage(delta);
  std::vector<std::string> names;
  for (const auto& [name, info] : plan) {
    names.push_back(name);
    EXPECT_EQ(info.operation, ModifyInfo::kOverride);
    EXPECT_EQ(fs::canonical(info.path), fs::canonical(delta + "/" + name));  // or a link to it
  }
  EXPECT_EQ(names, (std::vector<std::string>{"d.bsdiff", "d.sqlitediff", "d.vcdiff", "deep/in.txt",
                                             "dir/x", "new.txt"}));
  fs::create_directories(dir / "empty");
  EXPECT_TRUE(PlanFullPackage(dir / "empty").empty());
  fs::create_symlink(install + "/readme.txt", delta + "/escape");
  EXPECT_UPDATE_ERROR(PlanFullPackage(delta), "Fail to calculate modify info: path not in base");
}

TEST_F(PackagePlanTest, TargetsMustResolveInsideAlsoThroughInstalledLinks) {
  const auto plan = [](const std::string& name) {
    return Plan{{name, ModifyInfo{ModifyInfo::kOverride, "p"}}};
  };
  for (const char* inside : {"readme.txt", "/sub/new/t.txt", "new"})
    EXPECT_NO_THROW(CheckTargetsInside(plan(inside), install)) << inside;
  for (const char* outside : {"out/x", "/out/new", "../outside/x", "/sub/\n/../../x"}) {
    SCOPED_TRACE(outside);
    std::string shown = (fs::path(install) / outside).string();
    if (shown.find('\n') != std::string::npos)
      shown.replace(shown.find('\n'), 1, "\\x0a");
    EXPECT_UPDATE_ERROR(CheckTargetsInside(plan(outside), install),
                        "Refused to write outside the install directory: " + shown);
  }
}

}  // namespace
