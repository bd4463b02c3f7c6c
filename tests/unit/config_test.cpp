// Config: layered reads (local value wins only when usable), writes to the
// local file alone, section shadowing, and the JSON type rules. Real default
// and local files under a sandbox root.
#include "dataupdate/config.h"

#include <memory>
#include <stdexcept>

#include "dataupdate/error.h"
#include "forked_child.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using vesk::test::Exists;
using vesk::test::ReadFile;
using vesk::test::Sandbox;
using vesk::test::WriteFile;

namespace {

class ConfigTest : public ::testing::Test {
 protected:
  ConfigTest() : config(std::make_shared<IOUtils>()) { config.Init(default_path, local_path); }

  Sandbox sandbox;
  const std::string default_path = sandbox.Path("/usr/share/data_update/x.conf");
  const std::string local_path = sandbox.Path("/usr/vesk/etc/data_update/x.conf");
  Config config;
};

}  // namespace

TEST_F(ConfigTest, ReadsTheDefaultUntilALocalValueIsSet) {
  const std::string defaults = R"({"s": {"k": "default", "other": "d"}})";
  WriteFile(default_path, defaults);
  EXPECT_EQ(config.Get("s", "k"), "default");

  config.Set("s", "k", std::string("local"));
  EXPECT_EQ(config.Get("s", "k"), "local");
  EXPECT_EQ(config.Get("s", "other"), "d")
      << "keys the local file lacks still come from the default";
  EXPECT_EQ(ReadFile(default_path), defaults);
  EXPECT_EQ(ReadFile(local_path), "{\n\t\"s\" : \n\t{\n\t\t\"k\" : \"local\"\n\t}\n}\n");
  EXPECT_TRUE(Exists(sandbox.Path("/run/data_update/config.lock")));
}

TEST_F(ConfigTest, EveryReadSeesTheFilesAsTheyAreNow) {
  WriteFile(default_path, R"({"s": {"k": "one"}})");
  EXPECT_EQ(config.Get("s", "k"), "one");
  WriteFile(default_path, R"({"s": {"k": "two"}})");
  EXPECT_EQ(config.Get("s", "k"), "two");
  WriteFile(local_path, R"({"s": {"k": "three"}})");
  EXPECT_EQ(config.Get("s", "k"), "three");
}

TEST_F(ConfigTest, LocalValueOfTheWrongTypeFallsBackToTheDefault) {
  WriteFile(local_path, R"({"s": {"k": 5, "flag": "true", "n": "12"}})");
  WriteFile(default_path, R"({"s": {"k": "text", "flag": false, "n": 7}})");
  EXPECT_EQ(config.Get("s", "k"), "text");
  EXPECT_FALSE(config.GetAsBool("s", "flag"));
  EXPECT_EQ(config.GetAsUInt64("s", "n"), 7u);

  WriteFile(default_path, R"({"s": {}})");
  EXPECT_UPDATE_ERROR(config.Get("s", "k"), "section-key: 's'-'k' not found");
}

TEST_F(ConfigTest, NullLocalValueCountsAsMissing) {
  WriteFile(local_path, R"({"s": {"k": null}})");
  WriteFile(default_path, R"({"s": {"k": "d"}})");
  EXPECT_EQ(config.Get("s", "k"), "d");
}

TEST_F(ConfigTest, CorruptLocalFileIsIgnoredOnReadAndReplacedOnSet) {
  WriteFile(local_path, R"({"lost": {"a": "b"}, "s": )");
  WriteFile(default_path, R"({"s": {"k": "d"}, "t": {}})");
  EXPECT_EQ(config.Get("s", "k"), "d");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"s", "t"}));

  config.Set("n", "x", true);
  Json::Value expected;
  expected["n"]["x"] = true;
  EXPECT_EQ(IOUtils().ReadJson(local_path), expected);
}

TEST_F(ConfigTest, MissingDefaultFileIsReportedWithItsPath) {
  try {
    config.Get("s", "k");
    FAIL() << "no error";
  } catch (const UpdateError& e) {
    EXPECT_EQ(std::string(e.what()), "File not exist: " + default_path);
    EXPECT_EQ(e.code(), UpdateError::kFileNotExist);
  }
  // A usable local value never needs the default file.
  WriteFile(local_path, R"({"s": {"k": "v"}})");
  EXPECT_EQ(config.Get("s", "k"), "v");
}

TEST_F(ConfigTest, MissingSectionOrKeyInTheDefaultIsNotFound) {
  WriteFile(default_path, R"({"s": {"k": "v"}})");
  EXPECT_UPDATE_ERROR(config.Get("s", "nope"), "section-key: 's'-'nope' not found");
  EXPECT_UPDATE_ERROR(config.GetAsBool("none", "k"), "section-key: 'none'-'k' not found");
}

TEST_F(ConfigTest, TypesAreNeverConverted) {
  WriteFile(default_path, R"({"s": {"num": 12, "flag": true, "text": "12", "word": "true",
                                     "one": 1, "neg": -1, "zero": 0, "real": 5.0}})");
  EXPECT_UPDATE_ERROR(config.Get("s", "num"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.Get("s", "flag"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsBool("s", "word"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsBool("s", "one"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsUInt64("s", "text"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsUInt64("s", "neg"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsUInt64("s", "flag"), "Bad type conversion");
  EXPECT_EQ(config.GetAsUInt64("s", "zero"), 0u);
  EXPECT_EQ(config.GetAsUInt64("s", "num"), 12u);
  EXPECT_EQ(config.GetAsUInt64("s", "real"), 5u);
  EXPECT_TRUE(config.GetAsBool("s", "flag"));
}

TEST_F(ConfigTest, UnsignedReadsStopAtTheJsonLibrarysUnsignedIntRange) {
  WriteFile(default_path, R"({"s": {"max": 4294967295, "over": 4294967296}})");
  EXPECT_EQ(config.GetAsUInt64("s", "max"), 4294967295u);
  EXPECT_UPDATE_ERROR(config.GetAsUInt64("s", "over"), "Bad type conversion");
}

TEST_F(ConfigTest, EachSetOverloadWritesItsJsonType) {
  config.Set("s", "string", std::string("a"));
  config.Set("s", "chars", "b");
  config.Set("s", "count", 42ULL);
  config.Set("s", "flag", false);
  const Json::Value local = IOUtils().ReadJson(local_path);
  EXPECT_TRUE(local["s"]["string"].isString());
  EXPECT_EQ(local["s"]["chars"], Json::Value("b"));
  EXPECT_TRUE(local["s"]["count"].isIntegral());
  EXPECT_EQ(local["s"]["count"].asUInt64(), 42u);
  EXPECT_EQ(local["s"]["flag"], Json::Value(false));
  EXPECT_FALSE(Exists(default_path)) << "a set never writes the default file";

  EXPECT_EQ(config.GetAsUInt64("s", "count"), 42u);
  config.Set("s", "count", "no longer a number");  // any type replaces any type
  EXPECT_EQ(config.Get("s", "count"), "no longer a number");
}

TEST_F(ConfigTest, SetWithNullTextFailsBeforeTouchingAnyFile) {
  const char* null_text = nullptr;
  EXPECT_THROW(config.Set("s", "k", null_text), std::logic_error);
  EXPECT_FALSE(Exists(local_path));
  EXPECT_FALSE(Exists(sandbox.Path("/run/data_update/config.lock")));
}

TEST_F(ConfigTest, UnwritableLocalFileFailsTheSet) {
  // A plain file where the local file's directory should be.
  WriteFile(sandbox.Path("/usr/vesk/etc/data_update"), "not a directory");
  EXPECT_UPDATE_ERROR(config.Set("sec", "key", "v"), "Fail to set config sec:key");
}

TEST_F(ConfigTest, LocalSectionsShadowTheDefaultSections) {
  WriteFile(default_path, R"({"b": {}, "a": {"k": 1}})");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"a", "b"}));
  WriteFile(local_path, R"({"a": {"k": 2}})");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"a"}));
}

TEST_F(ConfigTest, SectionsWithNeitherFileReportTheMissingDefault) {
  EXPECT_UPDATE_ERROR(config.GetSections(), "File not exist: " + default_path);
}

TEST_F(ConfigTest, InitRepointsTheObject) {
  WriteFile(default_path, R"({"s": {"k": "first"}})");
  const std::string other = sandbox.Path("/usr/share/data_update/other.conf");
  WriteFile(other, R"({"s": {"k": "second"}})");
  EXPECT_EQ(config.Get("s", "k"), "first");
  config.Init(other, local_path);
  EXPECT_EQ(config.Get("s", "k"), "second");
}

TEST(ConfigMembers, GetAsConvertsOneValue) {
  Config config(std::make_shared<IOUtils>());
  EXPECT_EQ(config.GetAs<std::string>(Json::Value("x")), "x");
  EXPECT_EQ(config.GetAs<unsigned long long>(Json::Value(3)), 3u);
  EXPECT_TRUE(config.GetAs<bool>(Json::Value(true)));
  EXPECT_UPDATE_ERROR(config.GetAs<bool>(Json::Value(Json::nullValue)), "Bad type conversion");
}
