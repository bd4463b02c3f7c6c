// veskdbud-publish as a vendor runs it: what it writes and announces, read back
// through veskarchive_*; its warnings and mistakes; and an envelope made by an
// independent publisher from the documented layout.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <tuple>

#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "package_craft.h"
#include "repo_fixture.h"
#include "signing.h"
#include "vesk/archive.h"
#include "vesk_internal/envelope.h"

using namespace vesk::test;
using vesk::dataupdate::DiffInfo;
using vesk::dataupdate::RemoteInfo;
namespace fs = boost::filesystem;
namespace publish = vesk::publish;

namespace {

const std::string kPublish = VESKDBUD_PUBLISH_BIN;

class PublishRoundTripTest : public ::testing::Test {
 protected:
  // docs: nested files, one created then deleted, one changed twice; geo: one file.
  void SetUp() override {
    const std::string text = Pseudorandom(30000, 1);
    const std::string blob = Pseudorandom(60000, 2);
    WriteFile(src + "/docs/1/a.txt", text);
    WriteFile(src + "/docs/1/dir/sub/b.bin", blob);
    WriteFile(src + "/docs/2/a.txt", text);
    WriteFile(src + "/docs/2/dir/sub/b.bin", blob.substr(0, 30000) + "second" + blob.substr(30000));
    WriteFile(src + "/docs/2/dir/tmp.txt", "here for one version\n");
    WriteFile(src + "/docs/3/a.txt", text.substr(0, 10000) + "third" + text.substr(10000));
    WriteFile(src + "/docs/3/dir/sub/b.bin", ReadFile(src + "/docs/2/dir/sub/b.bin") + "third");
    for (int v = 1; v <= 3; ++v)
      WriteFile(src + "/geo/" + std::to_string(v) + "/places.bin", blob + std::to_string(v));
    const CommandResult k = RunCommand({kPublish, "keygen", "--out", keys});
    ASSERT_EQ(k.status, 0) << k.err;
    key_id = k.out.substr(7, 64);
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

  // The binding a package of version `v` of `id` must carry (from < 0: full).
  Json::Value Binding(const std::string& id, int v, int from) {
    Json::Value b;
    b["database"] = id;
    b["version"] = v;
    b["kind"] = from < 0 ? "full" : "diff";
    if (from >= 0)
      b["from"] = from;
    b["manifest"] = Json::Value(Json::objectValue);
    const std::string dir = src + "/" + id + "/" + std::to_string(v);
    for (const std::string& name : ListTree(dir)) {
      if (!fs::is_regular_file(dir + "/" + name))
        continue;
      std::ifstream in(dir + "/" + name, std::ios::binary);
      b["manifest"][name]["sha384"] = vesk::dataupdate::GetSha384(in);
      b["manifest"][name]["size"] = static_cast<Json::UInt64>(fs::file_size(dir + "/" + name));
    }
    return b;
  }

  TempDir root;
  ScopedEnv env{"VESKDBUD_ROOT", root.path().c_str()};
  TempDir work;
  std::string src = work / "src";
  std::string keys = work / "keys";
  std::string repo = work / "repo";
  std::string key_id;
};

}  // namespace

TEST_F(PublishRoundTripTest, PackagesHoldEveryVersionTheirDiffsAreAnnouncedAndOutputIsStable) {
  const CommandResult r = Publish(repo, "http://packages.example/db/");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");  // no digits of a version in the link: no warning
  const Json::Value doc = Document(repo);
  ASSERT_EQ(doc["db_list"].getMemberNames(), (std::vector<std::string>{"docs", "geo"}));
  for (const std::string id : {"docs", "geo"}) {
    const RemoteInfo remote = RemoteInfo::FromJson(doc["db_list"][id]);
    EXPECT_EQ(remote.data_version, 3);
    EXPECT_EQ(remote.download_link, "http://packages.example/db/" + id + "/v3/full.pkg");
    for (int v = 1; v <= 3; ++v) {
      const std::string pkg = repo + "/" + id + "/v" + std::to_string(v) + "/full.pkg";
      const std::string dir = work / ("full-" + id + std::to_string(v));
      EXPECT_EQ(Extract(pkg, dir).toStyledString(), Binding(id, v, -1).toStyledString());
      EXPECT_EQ(Snapshot(dir), Snapshot(src + "/" + id + "/" + std::to_string(v)));
      // The envelope names the key that keygen printed.
      const std::string bytes = ReadFile(pkg);
      const size_t trailer =
          vesk::envelope::kHeaderSize +
          vesk::envelope::GetBig(reinterpret_cast<const std::uint8_t*>(bytes.data()) + 8, 8);
      std::string hex;
      for (unsigned char c : bytes.substr(trailer + vesk::envelope::kKeyIdOffset, 32))
        hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
      EXPECT_EQ(hex, key_id);
    }
    const std::map<int, DiffInfo> diffs = DiffInfo::BatchFromJson(doc["db_list"][id]["diff_files"]);
    ASSERT_EQ(diffs.size(), 2u) << id;
    for (const auto& [version, diff] : diffs) {
      const std::string rel = "/" + id + "/v" + std::to_string(version) + "/diff.pkg";
      EXPECT_EQ(diff.download_link, "http://packages.example/db" + rel);
      EXPECT_EQ(static_cast<std::uint64_t>(diff.file_size), fs::file_size(repo + rel));
      EXPECT_EQ(Extract(repo + rel, work / "diff").toStyledString(),
                Binding(id, version, version - 1).toStyledString());
    }
  }
  // Published again: the same bytes (the document, its signature, 6 full and 4 diff packages).
  ASSERT_EQ(Publish(work / "again", "http://packages.example/db/").status, 0);
  EXPECT_EQ(Snapshot(work / "again"), Snapshot(repo));
  EXPECT_EQ(Snapshot(repo).size(), 12u);
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
