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
using namespace vesk::test;

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

TEST_F(ConfigTest, ReadsTheDefaultUntilALocalValueIsSetAndRereadsTheFilesEachTime) {
  const std::string defaults = R"({"s": {"k": "default", "other": "d"}})";
  WriteFile(default_path, defaults);
  EXPECT_EQ(config.Get("s", "k"), "default");

  config.Set("s", "k", std::string("local"));
  EXPECT_EQ(config.Get("s", "k"), "local");
  EXPECT_EQ(config.Get("s", "other"), "d") << "keys the local file lacks come from the default";
  EXPECT_EQ(ReadFile(default_path), defaults);
  EXPECT_EQ(ReadFile(local_path), "{\n\t\"s\" : \n\t{\n\t\t\"k\" : \"local\"\n\t}\n}\n");
  EXPECT_TRUE(Exists(sandbox.Path("/run/data_update/config.lock")));

  WriteFile(default_path, R"({"s": {"other": "two"}})");
  EXPECT_EQ(config.Get("s", "other"), "two");
  WriteFile(local_path, R"({"s": {"other": "three"}})");
  EXPECT_EQ(config.Get("s", "other"), "three");

  const std::string other = sandbox.Path("/usr/share/data_update/other.conf");
  WriteFile(other, R"({"t": {"k": "second"}})");
  config.Init(other, local_path);
  EXPECT_EQ(config.Get("t", "k"), "second");
}

TEST_F(ConfigTest, UnusableLocalValuesFallBackToTheDefault) {
  WriteFile(local_path, R"({"s": {"k": 5, "flag": "true", "n": "12", "nul": null}})");
  WriteFile(default_path, R"({"s": {"k": "text", "flag": false, "n": 7, "nul": "d"}})");
  EXPECT_EQ(config.Get("s", "k"), "text");
  EXPECT_FALSE(config.GetAsBool("s", "flag"));
  EXPECT_EQ(config.GetAsUInt64("s", "n"), 7u);
  EXPECT_EQ(config.Get("s", "nul"), "d");

  WriteFile(default_path, R"({"s": {}})");
  EXPECT_UPDATE_ERROR(config.Get("s", "k"), "section-key: 's'-'k' not found");
  EXPECT_UPDATE_ERROR(config.GetAsBool("none", "k"), "section-key: 'none'-'k' not found");
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
  EXPECT_UPDATE_ERROR(config.GetSections(), "File not exist: " + default_path);
  // A usable local value never needs the default file.
  WriteFile(local_path, R"({"s": {"k": "v"}})");
  EXPECT_EQ(config.Get("s", "k"), "v");
}

TEST_F(ConfigTest, TypesAreNeverConverted) {
  WriteFile(default_path, R"({"s": {"num": 12, "flag": true, "text": "12", "word": "true",
                                     "one": 1, "neg": -1, "zero": 0, "real": 5.0,
                                     "max": 4294967295, "over": 4294967296}})");
  EXPECT_UPDATE_ERROR(config.Get("s", "num"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.Get("s", "flag"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsBool("s", "word"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsBool("s", "one"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAs<bool>(Json::Value()), "Bad type conversion");
  // Unsigned reads stop at the JSON library's unsigned int range.
  for (const char* key : {"text", "neg", "flag", "over"}) {
    SCOPED_TRACE(key);
    EXPECT_UPDATE_ERROR(config.GetAsUInt64("s", key), "Bad type conversion");
  }
  EXPECT_EQ(config.GetAsUInt64("s", "zero"), 0u);
  EXPECT_EQ(config.GetAsUInt64("s", "num"), 12u);
  EXPECT_EQ(config.GetAsUInt64("s", "real"), 5u);
  EXPECT_EQ(config.GetAsUInt64("s", "max"), 4294967295u);
  EXPECT_TRUE(config.GetAsBool("s", "flag"));
}

TEST_F(ConfigTest, EachSetOverloadWritesItsJsonTypeToTheLocalFileOnly) {
  config.Set("s", "string", std::string("a"));
  config.Set("s", "chars", "b");
  config.Set("s", "count", 42ULL);
  config.Set("s", "flag", false);
  const Json::Value local = IOUtils().ReadJson(local_path)["s"];
  EXPECT_EQ(local["string"], Json::Value("a"));
  EXPECT_EQ(local["chars"], Json::Value("b"));
  EXPECT_TRUE(local["count"].isIntegral());
  EXPECT_EQ(local["count"].asUInt64(), 42u);
  EXPECT_EQ(local["flag"], Json::Value(false));
  EXPECT_FALSE(Exists(default_path));

  EXPECT_EQ(config.GetAsUInt64("s", "count"), 42u);
  config.Set("s", "count", "no longer a number");  // any type replaces any type
  EXPECT_EQ(config.Get("s", "count"), "no longer a number");
}

TEST_F(ConfigTest, FailedSetsNameTheKeyOrTouchNoFile) {
  const char* null_text = nullptr;
  EXPECT_THROW(config.Set("s", "k", null_text), std::logic_error);
  EXPECT_FALSE(Exists(local_path));
  EXPECT_FALSE(Exists(sandbox.Path("/run/data_update/config.lock")));
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
