// veskdbud-publish as a vendor runs it: what it writes and announces, read back
// through veskarchive_*; its warnings and mistakes; and an envelope made by an
// independent publisher from the documented layout.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <tuple>

#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "package_craft.h"
#include "repo_fixture.h"
#include "signing.h"
#include "vesk/archive.h"

using namespace vesk::test;
using vesk::dataupdate::DiffInfo;
using vesk::dataupdate::RemoteInfo;
namespace fs = boost::filesystem;
namespace publish = vesk::publish;

namespace {

const std::string kPublish = VESKDBUD_PUBLISH_BIN;

class PublishRoundTripTest : public ::testing::Test {
 protected:
  // docs at versions 1 to 3, geo at 0 to 2, each changed a little from the one before.
  void SetUp() override {
    const std::string text = Pseudorandom(30000, 1);
    for (int v = 1; v <= 3; ++v) {
      WriteFile(src + "/docs/" + std::to_string(v) + "/dir/a.txt", text + std::to_string(v));
      WriteFile(src + "/geo/" + std::to_string(v - 1) + "/places.bin", std::to_string(v) + text);
    }
    const CommandResult k = RunCommand({kPublish, "keygen", "--out", keys});
    ASSERT_EQ(k.status, 0) << k.err;
    WriteFile(root / "usr/vesk/etc/keys/6/vendor.pem", ReadFile(keys + "/public.pem"));
  }

  CommandResult Publish(const std::string& out, const std::string& base_url,
                        const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args{kPublish,     "publish", "--source", src,
                                  "--out",      out,       "--key",    keys + "/private.pem",
                                  "--base-url", base_url,  "--issued", "1600000300"};
    args.insert(args.end(), extra.begin(), extra.end());
    if (std::find(extra.begin(), extra.end(), "--db-ver") == extra.end())
      args.insert(args.end(), {"--db-ver", "v1"});
    return RunCommand(args);
  }

  Json::Value Document(const std::string& dir, const std::string& db_ver = "v1") {
    return vesk::dataupdate::IOUtils().ReadJson(dir + "/database_info/" + db_ver);
  }

  // Extracts `package` into `dir`; its binding, parsed.
  Json::Value Extract(const std::string& package, const std::string& dir) {
    fs::create_directories(dir);
    ArchivePtr h(veskarchive_init(dir.c_str()));
    EXPECT_NE(veskarchive_open_with_keytype(h.get(), package.c_str(), 6), 0)
        << veskarchive_error_detail(h.get());
    EXPECT_NE(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0)
        << veskarchive_error_detail(h.get());
    size_t size = 0;
    const char* text = veskarchive_binding(h.get(), &size);
    Json::Value binding;
    if (text != nullptr)
      Json::Reader().parse(text, text + size, binding);
    return binding;
  }

  TempDir root;
  ScopedEnv env{"VESKDBUD_ROOT", root.path().c_str()};
  TempDir work;
  std::string src = work / "src";
  std::string keys = work / "keys";
  std::string repo = work / "repo";
};

}  // namespace

// Every version's whole package and each diff, announced with its size; the
// same source published again gives the same bytes.
TEST_F(PublishRoundTripTest, EveryVersionAndDiffIsAnnouncedAndPublishingAgainGivesTheSameBytes) {
  const CommandResult r = Publish(repo, "http://packages.example/db/");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");  // no digits of a version in the link: no warning
  const Json::Value doc = Document(repo);
  ASSERT_EQ(doc["db_list"].getMemberNames(), (std::vector<std::string>{"docs", "geo"}));
  for (const std::string id : {"docs", "geo"}) {
    EXPECT_EQ(RemoteInfo::FromJson(doc["db_list"][id]).download_link,
              "http://packages.example/db/" + id + (id == "geo" ? "/v2" : "/v3") + "/full.pkg");
    const std::map<int, DiffInfo> diffs = DiffInfo::BatchFromJson(doc["db_list"][id]["diff_files"]);
    ASSERT_EQ(diffs.size(), 2u) << id;
    for (const auto& [version, diff] : diffs) {
      const std::string rel = "/" + id + "/v" + std::to_string(version) + "/diff.pkg";
      EXPECT_EQ(diff.download_link, "http://packages.example/db" + rel);
      EXPECT_EQ(static_cast<std::uint64_t>(diff.file_size), fs::file_size(repo + rel));
    }
  }
  const Json::Value from_zero = Extract(repo + "/geo/v1/diff.pkg", work / "diff");
  EXPECT_EQ(from_zero["kind"].asString() + from_zero["from"].toStyledString(), "diff0\n");
  ASSERT_EQ(Publish(work / "again", "http://packages.example/db/").status, 0);
  EXPECT_EQ(Snapshot(work / "again"), Snapshot(repo));
  EXPECT_EQ(Snapshot(repo).size(), 12u);  // the document, its signature, 6 full and 4 diff packages
}

TEST_F(PublishRoundTripTest, OptionsShapeTheDocumentAndWarnOfLinkDigitsThatCollide) {
  WriteFile(src + "/db2/1/f", "one");
  WriteFile(src + "/db2/2/f", "two");
  const CommandResult ok =
      Publish(repo, "http://127.0.0.1:8080/x",
              {"--deprecated", "geo", "--time", "1234567", "--max-diff-ratio", "0", "--db-ver",
               "2.0", "--link", "docs=http://mirror.example/v3/docs-3.pkg"});
  ASSERT_EQ(ok.status, 0) << ok.err;
  for (const char* warning :
       {"warning: the base URL http://127.0.0.1:8080/x contains 1, the digits of version 1 of "
        "docs; a forced install rewrites every occurrence\n",
        "warning: the database id db2 contains 2, the digits of its version 2",
        "warning: the announced link http://mirror.example/v3/docs-3.pkg of docs holds 3 2 "
        "times; a forced install needs it exactly once"})
    EXPECT_NE(ok.err.find(warning), std::string::npos) << ok.err;
  EXPECT_EQ(ok.err.find("contains 3,"), std::string::npos) << ok.err;
  const Json::Value doc = Document(repo, "2.0");
  const RemoteInfo geo = RemoteInfo::FromJson(doc["db_list"]["geo"]);
  const RemoteInfo docs = RemoteInfo::FromJson(doc["db_list"]["docs"]);
  EXPECT_TRUE(geo.deprecated);
  EXPECT_FALSE(docs.deprecated);
  EXPECT_EQ(docs.download_link, "http://mirror.example/v3/docs-3.pkg");
  EXPECT_EQ(geo.last_fetch_time, 1234567);
  EXPECT_TRUE(doc["db_list"]["docs"]["diff_files"].isObject());
  EXPECT_TRUE(DiffInfo::BatchFromJson(doc["db_list"]["docs"]["diff_files"]).empty());
  EXPECT_TRUE(fs::exists(repo + "/docs/v3/diff.pkg"));  // written, just not announced
  EXPECT_NE(ok.out.find("(not announced: more than 0% of the full package)"), std::string::npos);
}

TEST_F(PublishRoundTripTest, CommandLineMistakesAreReported) {
  WriteFile(work / "not-a-key.pem", "nothing");
  auto publish = [&](const std::string& key, const std::vector<std::string>& extra) {
    std::vector<std::string> argv{
        kPublish, "publish",    "--source",         src,        "--out", repo, "--key",
        key,      "--base-url", "http://p.example", "--db-ver", "v1"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
  };
  const std::string key = keys + "/private.pem", bad_key = work / "not-a-key.pem";
  // A usage error (2) starts with its line; a failure (1) is its line alone.
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases{
      {{kPublish}, 2, "no command given\nUsage:"},
      {{kPublish, "publish", "--out", repo}, 2, "--source is required\n"},
      {publish(key, {"--colour", "blue"}), 2, "unknown option --colour\n"},
      {publish(key, {"--max-diff-ratio", "-1"}), 2, ""},
      {publish(key, {"--db-ver", "v2"}), 2, "--db-ver given more than once\n"},
      {publish(key, {"--deprecated", "nosuch"}), 1,
       "--deprecated names an unknown database: nosuch\n"},
      {publish(bad_key, {}), 1, bad_key + " holds no Ed25519 private key\n"},
      {{kPublish, "keygen", "--out", keys},
       1,
       "cannot create " + keys + "/private.pem: File exists\n"},
  };
  for (const auto& [argv, status, text] : cases) {
    const CommandResult r = RunCommand(argv);
    const std::string err = "veskdbud-publish: " + text;
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_EQ(status == 2 ? r.err.substr(0, err.size()) : r.err, err);
  }
  EXPECT_FALSE(fs::exists(repo + "/database_info"));
}

TEST_F(PublishRoundTripTest, EnvelopeBuiltByHandFromTheDocumentedLayoutIsAccepted) {
  const std::string tar = work / "a.tar.gz";
  WriteTarball(tar, {FileEntry("docs/readme", "written by another publisher\n")},
               Compression::kGzip);
  const std::string pkg = work / "by-hand.pkg";
  const std::string binding = R"({"database":"docs","kind":"full","manifest":{},"version":7})";
  WriteFile(work / "binding.json", binding);
  ASSERT_EQ(RunCommand({"python3", SupportFile("envelope_by_hand.py"), tar, keys + "/private.pem",
                        "6", pkg, work / "binding.json"})
                .status,
            0);
  const auto key = publish::LoadPrivateKey(keys + "/private.pem");
  publish::SignArchive(tar, work / "ours.pkg", key.get(), 6, binding);
  EXPECT_EQ(ReadFile(pkg), ReadFile(work / "ours.pkg"));  // Ed25519 is deterministic
  Extract(pkg, work / "target");
  EXPECT_EQ(ReadFile(work / "target/docs/readme"), "written by another publisher\n");
}
