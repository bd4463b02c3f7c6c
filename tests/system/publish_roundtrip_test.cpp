// veskdbud-publish as a vendor runs it: what it writes and announces, read back
// through veskarchive_*.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

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

  CommandResult Publish(const std::string& out, const std::string& base_url) {
    return RunCommand({kPublish, "publish", "--source", src, "--out", out, "--key",
                       keys + "/private.pem", "--base-url", base_url, "--issued", "1600000300",
                       "--db-ver", "v1"});
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
    return text != nullptr ? ParseJson(std::string(text, size)) : Json::Value();
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
  const Json::Value doc = vesk::dataupdate::IOUtils().ReadJson(repo + "/database_info/v1");
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

// A second writer built from docs/package-format.md alone gives the same bytes.
TEST_F(PublishRoundTripTest, EnvelopeBuiltByHandFromTheDocumentedLayoutIsAccepted) {
  const std::string tar = work / "a.tar.gz";
  WriteTarball(tar, {FileEntry("docs/readme", "written by another publisher\n")},
               Compression::kGzip);
  const std::string binding = R"({"database":"docs","kind":"full","manifest":{},"version":7})";
  WriteFile(work / "binding.json", binding);
  ASSERT_EQ(RunCommand({"python3", VESKDBUD_TEST_SUPPORT_DIR "/envelope_by_hand.py", tar,
                        keys + "/private.pem", "6", work / "by-hand.pkg", work / "binding.json"})
                .status,
            0);
  const auto key = publish::LoadPrivateKey(keys + "/private.pem");
  publish::SignArchive(tar, work / "ours.pkg", key.get(), 6, binding);
  EXPECT_EQ(ReadFile(work / "by-hand.pkg"), ReadFile(work / "ours.pkg"));  // Ed25519: deterministic
  EXPECT_EQ(Extract(work / "by-hand.pkg", work / "target")["version"].asInt(), 7);
  EXPECT_EQ(ReadFile(work / "target/docs/readme"), "written by another publisher\n");
}
