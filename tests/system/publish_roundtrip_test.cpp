// veskdbud-publish end to end: a SQLite database and a tree of flat files over
// three versions, published with the real tool, served over HTTP, downloaded
// with wget, opened and extracted through veskarchive_* (the engine applies
// the diff chain in engine_test); an envelope made by an independent
// publisher from the documented layout, and memory that stays flat for a
// large package.
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/reader.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <tuple>

#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "file_io.h"
#include "package_craft.h"
#include "signing.h"
#include "tar_writer.h"
#include "test_support.h"
#include "vesk/archive.h"
#include "vesk_internal/envelope.h"

using namespace vesk::test;
using vesk::dataupdate::DiffInfo;
using vesk::dataupdate::IOUtils;
using vesk::dataupdate::RemoteInfo;
namespace fs = boost::filesystem;
namespace publish = vesk::publish;

namespace {

const std::string kPublish = VESKDBUD_PUBLISH_BIN;

void SetMtime(const std::string& path, long seconds) {
  struct timeval times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(utimes(path.c_str(), times), 0) << path;
}

void Sql(const std::string& db, const std::string& sql) {
  const CommandResult r = RunCommand({"sqlite3", "-bail", db, sql});
  ASSERT_EQ(r.status, 0) << r.err;
}

// Regular files below `dir`, relative and sorted.
std::vector<std::string> Files(const std::string& dir) {
  std::vector<std::string> files;
  for (const auto& name : ListTree(dir)) {
    if (fs::is_regular_file(fs::symlink_status(dir + "/" + name)))
      files.push_back(name);
  }
  return files;
}

}  // namespace

class PublishRoundTripTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeSource();
    const CommandResult k = RunCommand({kPublish, "keygen", "--out", keys});
    ASSERT_EQ(k.status, 0) << k.err;
    ASSERT_EQ(k.out.rfind("key id ", 0), 0u);
    key_id = k.out.substr(7, 64);
    WriteFile(root / "usr/vesk/etc/keys/6/vendor.pem", ReadFile(keys + "/public.pem"));
  }

  // geo: an SQLite database (with a text file beside it); docs: flat files in
  // nested directories, one created then deleted, one changed in two versions.
  void MakeSource() {
    const std::string geo1 = src + "/geo/1", geo2 = src + "/geo/2", geo3 = src + "/geo/3";
    fs::create_directories(geo1);
    Sql(geo1 + "/geo.db",
        "CREATE TABLE places(id INTEGER PRIMARY KEY, name TEXT NOT NULL, note TEXT, shape BLOB);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
        "INSERT INTO places SELECT i, 'place ' || i, 'note ' || i, randomblob(40) FROM n;");
    WriteFile(geo1 + "/README.txt", "places of the world\n");
    fs::create_directories(geo2);
    fs::copy_file(geo1 + "/geo.db", geo2 + "/geo.db");
    fs::copy_file(geo1 + "/README.txt", geo2 + "/README.txt");
    Sql(geo2 + "/geo.db",
        "UPDATE places SET note = 'renamed' || char(10) || 'over two lines' WHERE id % 50 = 0;"
        "INSERT INTO places VALUES (5000, 'new place', 'it''s new', x'00ff00');"
        "DELETE FROM places WHERE id BETWEEN 100 AND 120;");
    fs::create_directories(geo3);
    fs::copy_file(geo2 + "/geo.db", geo3 + "/geo.db");
    WriteFile(geo3 + "/README.txt", "places of the world, third edition\n");
    Sql(geo3 + "/geo.db",
        "CREATE INDEX places_name ON places(name);"
        "UPDATE places SET shape = NULL, note = 'a' || char(13) || char(10) || 'b' "
        "WHERE id % 70 = 0;");

    const std::string text = Pseudorandom(30000, 1);
    const std::string blob = Pseudorandom(60000, 2);
    const std::string docs1 = src + "/docs/1", docs2 = src + "/docs/2", docs3 = src + "/docs/3";
    WriteFile(docs1 + "/a.txt", text);
    WriteFile(docs1 + "/dir/sub/b.bin", blob);
    WriteFile(docs1 + "/dir/sub/deeper/c.txt", "deep and unchanged\n");
    WriteFile(docs2 + "/a.txt", text);
    WriteFile(docs2 + "/dir/sub/b.bin", blob.substr(0, 30000) + "second" + blob.substr(30000));
    WriteFile(docs2 + "/dir/sub/deeper/c.txt", "deep and unchanged\n");
    WriteFile(docs2 + "/dir/tmp.txt", "here for one version\n");
    WriteFile(docs3 + "/a.txt", text.substr(0, 10000) + "third" + text.substr(10000));
    WriteFile(docs3 + "/dir/sub/b.bin", ReadFile(docs2 + "/dir/sub/b.bin") + "third");
    WriteFile(docs3 + "/dir/sub/deeper/c.txt", "deep and unchanged\n");
    WriteFile(docs3 + "/x/y/z.txt", "new and nested\n");

    for (const std::string id : {"geo", "docs"}) {
      for (const auto& name : ListTree(src + "/" + id))
        SetMtime(src + "/" + id + "/" + name, id == std::string("geo") ? 1600000100 : 1600000200);
    }
  }

  CommandResult Publish(const std::string& out, const std::string& base_url,
                        const std::vector<std::string>& extra = {}, const std::string& source = "",
                        const std::string& db_ver = "v1") {
    std::vector<std::string> args{
        kPublish,     "publish",   "--source", source.empty() ? src : source,
        "--out",      out,         "--key",    keys + "/private.pem",
        "--base-url", base_url,    "--db-ver", db_ver,
        "--issued",   "1600000300"};
    args.insert(args.end(), extra.begin(), extra.end());
    return RunCommand(args);
  }

  Json::Value Document(const std::string& repo_dir, const std::string& db_ver = "v1") {
    return io.ReadJson(repo_dir + "/database_info/" + db_ver);
  }

  // Extracts `package` into `dir`; its binding, parsed ("null" when it has none).
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

  // The binding a package of version `v` of `id` must carry.
  Json::Value Binding(const std::string& id, int v, int from) {
    Json::Value b;
    b["database"] = id;
    b["version"] = v;
    b["kind"] = from < 0 ? "full" : "diff";
    if (from >= 0)
      b["from"] = from;
    b["manifest"] = Json::Value(Json::objectValue);
    const std::string dir = src + "/" + id + "/" + std::to_string(v);
    for (const std::string& name : Files(dir)) {
      std::ifstream in(dir + "/" + name, std::ios::binary);
      b["manifest"][name]["sha384"] = vesk::dataupdate::GetSha384(in);
      b["manifest"][name]["size"] = static_cast<Json::UInt64>(fs::file_size(dir + "/" + name));
    }
    return b;
  }

  // Same files with the same bytes.
  void ExpectSameFiles(const std::string& got, const std::string& want) {
    ASSERT_EQ(Files(got), Files(want));
    for (const auto& name : Files(want))
      EXPECT_EQ(ReadFile(got + "/" + name), ReadFile(want + "/" + name)) << name;
  }

  TempDir root;
  ScopedEnv env{"VESKDBUD_ROOT", root.path().c_str()};
  TempDir work;
  std::string src = work / "src";
  std::string keys = work / "keys";
  std::string repo = work / "repo";
  std::string key_id;
  IOUtils io;
};

TEST_F(PublishRoundTripTest, ServedPackagesExtractToEveryVersionAndTheirDiffsAreAnnounced) {
  fs::create_directories(repo);
  HttpServer server(repo);
  const CommandResult r = Publish(repo, server.url("/"));
  ASSERT_EQ(r.status, 0) << r.err;
  const Json::Value doc = Document(repo);
  ASSERT_EQ(doc["db_list"].getMemberNames(), (std::vector<std::string>{"docs", "geo"}));

  for (const std::string id : {"docs", "geo"}) {
    const RemoteInfo remote = RemoteInfo::FromJson(doc["db_list"][id]);
    EXPECT_EQ(remote.data_version, 3);
    EXPECT_FALSE(remote.deprecated);
    EXPECT_EQ(remote.last_fetch_time, id == "geo" ? 1600000100 : 1600000200);
    EXPECT_EQ(remote.download_link, server.url("/" + id + "/v3/full.pkg"));
    for (int v = 1; v <= 3; ++v) {
      const std::string pkg = work / (id + "-full-" + std::to_string(v));
      io.Download(pkg, server.url("/" + id + "/v" + std::to_string(v) + "/full.pkg"));
      const std::string dir = work / ("full-" + id + std::to_string(v));
      EXPECT_EQ(Extract(pkg, dir).toStyledString(), Binding(id, v, -1).toStyledString());
      ExpectSameFiles(dir, src + "/" + id + "/" + std::to_string(v));
      // The envelope names the key that keygen printed.
      const std::string bytes = ReadFile(pkg);
      const size_t trailer =
          vesk::envelope::kHeaderSize +
          vesk::envelope::GetBig(reinterpret_cast<const std::uint8_t*>(bytes.data()) + 8, 8);
      const std::string id_bytes = bytes.substr(trailer + vesk::envelope::kKeyIdOffset, 32);
      std::string hex;
      for (unsigned char c : id_bytes)
        hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
      EXPECT_EQ(hex, key_id);
      // One byte of the signed archive, or of the binding, changed in transit:
      // refused unopened.
      for (const size_t at : {trailer / 2, bytes.size() - 3}) {
        std::string flipped = bytes;
        flipped[at] ^= 1;
        WriteFile(pkg + ".flipped", flipped);
        fs::create_directories(work / "flipped");
        ArchivePtr h(veskarchive_init((work / "flipped").c_str()));
        EXPECT_EQ(veskarchive_open_with_keytype(h.get(), (pkg + ".flipped").c_str(), 6), 0) << at;
        EXPECT_EQ(veskarchive_error(h.get()), VESKARCHIVE_E_BAD_SIGNATURE) << at;
        EXPECT_TRUE(ListTree(work / "flipped").empty());
      }
    }
    const std::map<int, DiffInfo> diffs = DiffInfo::BatchFromJson(doc["db_list"][id]["diff_files"]);
    ASSERT_EQ(diffs.size(), 2u) << id;
    for (const auto& [version, diff] : diffs) {
      const std::string rel = "/" + id + "/v" + std::to_string(version) + "/diff.pkg";
      EXPECT_EQ(diff.download_link, server.url(rel));
      EXPECT_EQ(static_cast<std::uint64_t>(diff.file_size), fs::file_size(repo + rel));
      const std::string pkg = work / (id + "-diff-" + std::to_string(version));
      io.Download(pkg, diff.download_link);
      EXPECT_EQ(Extract(pkg, work / "diff").toStyledString(),
                Binding(id, version, version - 1).toStyledString());
    }
  }
  const auto requests = server.Requests();
  EXPECT_EQ(std::count(requests.begin(), requests.end(), "GET /docs/v1/full.pkg"), 1);
}

TEST_F(PublishRoundTripTest, PublishingTwiceGivesIdenticalBytes) {
  ASSERT_EQ(Publish(repo, "http://packages.example/db").status, 0);
  const std::string again = work / "again";
  ASSERT_EQ(Publish(again, "http://packages.example/db").status, 0);
  EXPECT_EQ(Files(repo).size(), 12u);  // the document, its signature, 6 full and 4 diff packages
  ExpectSameFiles(again, repo);
}

TEST_F(PublishRoundTripTest, WarnsWhenLinkDigitsCouldCollideWithAVersion) {
  const CommandResult clash = Publish(repo, "http://127.0.0.1:8080/x");
  ASSERT_EQ(clash.status, 0) << clash.err;
  EXPECT_NE(clash.err.find("warning: the base URL http://127.0.0.1:8080/x contains 1, the digits "
                           "of version 1 of docs; a forced install rewrites every occurrence\n"),
            std::string::npos)
      << clash.err;
  EXPECT_EQ(clash.err.find("contains 3,"), std::string::npos) << clash.err;

  const CommandResult clean = Publish(work / "clean", "http://packages.example/db/");
  ASSERT_EQ(clean.status, 0);
  EXPECT_EQ(clean.err, "");
  EXPECT_EQ(Document(work / "clean")["db_list"]["geo"]["download_link"].asString(),
            "http://packages.example/db/geo/v3/full.pkg");

  const std::string other = work / "other-src";
  WriteFile(other + "/db2/1/f", "one");
  WriteFile(other + "/db2/2/f", "two");
  const CommandResult id_clash =
      Publish(work / "other", "http://packages.example/db",
              {"--link", "db2=http://mirror.example/v2/db-2.pkg"}, other);
  ASSERT_EQ(id_clash.status, 0) << id_clash.err;
  EXPECT_NE(
      id_clash.err.find("warning: the database id db2 contains 2, the digits of its version 2"),
      std::string::npos)
      << id_clash.err;
  EXPECT_NE(id_clash.err.find("warning: the announced link http://mirror.example/v2/db-2.pkg of "
                              "db2 holds 2 2 times; a forced install needs it exactly once"),
            std::string::npos)
      << id_clash.err;
}

TEST_F(PublishRoundTripTest, OptionsShapeTheDocument) {
  const CommandResult ok =
      Publish(repo, "http://packages.example",
              {"--deprecated", "geo", "--link", "docs=http://mirror.example/docs/v3.pkg", "--time",
               "1234567", "--max-diff-ratio", "0"},
              src, "2.0");
  ASSERT_EQ(ok.status, 0) << ok.err;
  const Json::Value doc = Document(repo, "2.0");
  const RemoteInfo geo = RemoteInfo::FromJson(doc["db_list"]["geo"]);
  const RemoteInfo docs = RemoteInfo::FromJson(doc["db_list"]["docs"]);
  EXPECT_TRUE(geo.deprecated);
  EXPECT_FALSE(docs.deprecated);
  EXPECT_EQ(docs.download_link, "http://mirror.example/docs/v3.pkg");
  EXPECT_EQ(geo.download_link, "http://packages.example/geo/v3/full.pkg");
  EXPECT_EQ(geo.last_fetch_time, 1234567);
  EXPECT_EQ(docs.last_fetch_time, 1234567);
  EXPECT_TRUE(DiffInfo::BatchFromJson(doc["db_list"]["geo"]["diff_files"]).empty());
  EXPECT_TRUE(doc["db_list"]["docs"]["diff_files"].isObject());
  EXPECT_TRUE(DiffInfo::BatchFromJson(doc["db_list"]["docs"]["diff_files"]).empty());
  EXPECT_TRUE(fs::exists(repo + "/docs/v3/diff.pkg"));  // written, just not announced
  EXPECT_NE(ok.out.find("diff  docs v3"), std::string::npos);
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
  };
  for (const auto& [argv, status, text] : cases) {
    const CommandResult r = RunCommand(argv);
    const std::string err = "veskdbud-publish: " + text;
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_EQ(status == 2 ? r.err.substr(0, err.size()) : r.err, err);
  }
  CommandResult r = RunCommand({kPublish, "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("veskdbud-publish publish --source SRC"), std::string::npos);
  r = RunCommand({kPublish, "keygen", "--out", keys});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot create " + keys + "/private.pem: File exists"), std::string::npos);
  EXPECT_FALSE(fs::exists(repo + "/database_info"));
}

TEST_F(PublishRoundTripTest, EnvelopeBuiltByHandFromTheDocumentedLayoutIsAccepted) {
  const auto key = publish::LoadPrivateKey(keys + "/private.pem");
  const std::string target = work / "target";
  const std::string tar = work / "a.tar.gz";
  WriteTarball(tar, {FileEntry("docs/readme", "written by another publisher\n")},
               Compression::kGzip);
  const std::string pkg = work / "by-hand.pkg";
  const std::string binding = R"({"database":"docs","kind":"full","manifest":{},"version":7})";
  std::ofstream(work / "binding.json") << binding;
  const std::string cmd = "python3 " + SupportFile("envelope_by_hand.py") + " " + tar + " " + keys +
                          "/private.pem 6 " + pkg + " " + (work / "binding.json");
  ASSERT_EQ(std::system(cmd.c_str()), 0);

  publish::SignArchive(tar, work / "ours.pkg", key.get(), 6, binding);
  EXPECT_EQ(ReadFile(pkg), ReadFile(work / "ours.pkg"));  // Ed25519 is deterministic

  Extract(pkg, target);
  EXPECT_EQ(ReadFile(target + "/docs/readme"), "written by another publisher\n");
}

TEST_F(PublishRoundTripTest, MemoryStaysFlatWhileALargePackageIsVerifiedAndExtracted) {
  constexpr size_t kMiB = 1024 * 1024;
  constexpr size_t kSize = 96 * kMiB;
  const auto key = publish::LoadPrivateKey(keys + "/private.pem");
  const std::string target = work / "target";
  fs::create_directories(target);
  const std::string big = work / "big.bin";
  {
    std::ifstream random("/dev/urandom", std::ios::binary);
    std::ofstream out(big, std::ios::binary);
    std::vector<char> chunk(kMiB);
    for (size_t done = 0; done < kSize; done += kMiB) {
      random.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
      out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
  }
  const std::string tar = work / "big.tar.zst";
  publish::WriteTar(tar, {publish::FileMember("big.bin", big)}, 0);
  const std::string pkg = work / "big.pkg";
  publish::SignArchive(tar, pkg, key.get(), 6);
  ASSERT_GT(vesk::publish::FileSize(pkg), kSize);

  // A child measures its own peak resident set around open and extract.
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    veskarchive* h = veskarchive_init(target.c_str());
    const bool ok = h != nullptr && veskarchive_open_with_keytype(h, pkg.c_str(), 6) != 0 &&
                    veskarchive_extract_multiple(h, nullptr, VESKARCHIVE_EXTRACT_OVERWRITE) != 0;
    veskarchive_free(h);
    getrusage(RUSAGE_SELF, &after);
    const long grown_kib = after.ru_maxrss - before.ru_maxrss;
    _exit(!ok ? 2 : grown_kib > 24 * 1024 ? 3 : 0);  // far below the package's 96 MiB
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2: extraction failed, 3: memory grew with the package";
  EXPECT_TRUE(publish::SameContent(big, target + "/big.bin"));
}
