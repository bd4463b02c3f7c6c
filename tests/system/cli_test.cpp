// The veskdbud tool as installed by `cmake --install`, run as an operator
// would against a published repository, judged by its exit status, its
// output and what it leaves.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "dataupdate/file_lock.h"
#include "forked_child.h"
#include "repo_fixture.h"

namespace fs = boost::filesystem;
using vesk::dataupdate::FileLock;
using namespace vesk::test;

namespace {

// Dated versions: eight digits never occur in "http://127.0.0.1:<port>/repo",
// so a forced install can rewrite them in the package link.
constexpr int kV1 = 20250601;
constexpr int kV2 = 20250602;
constexpr int kV3 = 20250603;

// The tree `cmake --install` makes, once per test process.
const std::string& Prefix() {
  static TempDir prefix;
  static const bool installed =
      Shell("cmake --install " + ShellQuote(VESKDBUD_BUILD_DIR) + " --prefix " +
            ShellQuote(prefix.path()) + " >/dev/null") == 0;
  EXPECT_TRUE(installed) << "cmake --install failed";
  return prefix.path();
}

std::string Tool() {
  return Prefix() + "/bin/veskdbud";
}

// Text that does not compress, so a small change makes a diff package far
// smaller than the full one.
std::string Rules(char changed_at_500 = 'w') {
  std::string text = Pseudorandom(20000, 12345);
  for (char& c : text)
    c = static_cast<char>('a' + static_cast<unsigned char>(c) % 26);
  text[500] = changed_at_500;
  return text;
}

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InstallTrust(sandbox, repo);
    WriteDefaultConfig(sandbox, repo, volume, {{"db1"}, {"db2"}, {"db3", "%VOLUME%", "1", false}});
  }

  // Runs the installed tool with `args` (already shell words), after `env`
  // assignments, with stdin from /dev/null.
  CommandResult Cli(const std::string& args, const std::string& env = "") const {
    return RunCommand({"/bin/sh", "-c", env + " " + ShellQuote(Tool()) + " " + args});
  }

  Json::Value Status(const std::string& id = "") const {
    const CommandResult o = Cli("status --json " + id);
    EXPECT_EQ(o.status, 0) << o.err;
    return ParseJson(o.out);
  }

  static Json::Value Entry(const Json::Value& status, const std::string& id) {
    for (const Json::Value& db : status["databases"])
      if (db["id"].asString() == id)
        return db;
    ADD_FAILURE() << "no entry for " << id;
    return Json::Value();
  }

  // db1: two files, db2: one file, both at kV1 and published.
  void PublishFirst(const std::vector<std::string>& publish_args = {}) {
    repo.SetFile("db1", kV1, "readme.txt", "db1 release one\n");
    repo.SetFile("db1", kV1, "rules/web.rules", Rules());
    repo.SetFile("db2", kV1, "list.txt", "db2 release one\n");
    ASSERT_EQ(repo.Publish(publish_args), 0);
  }

  void PublishSecondAndThird() {
    repo.CopyVersion("db1", kV1, kV2);
    repo.SetFile("db1", kV2, "readme.txt", "db1 release two\n");
    repo.CopyVersion("db1", kV2, kV3);
    repo.SetFile("db1", kV3, "rules/web.rules", Rules('x'));
    ASSERT_EQ(repo.Publish(), 0);
    // The appliance asks the server again only when its copy is an hour old.
    SetAge(sandbox.Path("/var/cache/data_update/database_info.json"), 7200);
  }

  void WriteServiceConfig(const std::string& netloc, const std::string& cur_volume,
                          const std::string& scheme = "http") const {
    sandbox.Write("/usr/share/data_update/data_update.conf",
                  "{\"config\": {\"download_scheme\": \"" + scheme + "\", \"db_netloc\": \"" +
                      netloc + "\", \"db_ver\": \"v1\", \"cur_volume\": \"" + cur_volume + "\"}}");
  }

  std::string Installed(const std::string& id) const {
    return volume + "/@database/autoupdate/" + id;
  }

  Sandbox sandbox;
  Repo repo;
  std::string volume = sandbox.volume();
  TempDir io;
  ScopedEnv no_log_file{"VESKDBUD_LOG_FILE", nullptr};
  ScopedEnv no_wgetrc{"WGETRC", nullptr};
  ScopedEnv volumes{"VESK_VOLUMES", volume.c_str()};
};

// The appliance's life through the tool: first install, damage noticed and
// repaired, a diff chain taken by one of eight concurrent runs, the volume
// leaving, a forced install back and the update that returns.
TEST_F(CliTest, OneJourneyInstallRepairDiffChainVolumeMoveAndForcedInstall) {
  const std::string odd = "odd\\name x.txt";  // kept escaped in the stored manifest
  repo.SetFile("db1", kV1, odd, "an odd name\n");
  PublishFirst();
  sandbox.Write("/etc/machine-id", "0123456789abcdef0123456789abcdef\n");
  const CommandResult update = Cli("update --all");
  EXPECT_EQ(update.status, 0) << update.err;
  // The document is asked for with the machine's identity and every database, sorted.
  EXPECT_EQ(repo.server().Requests().at(0),
            "GET /repo/database_info/v1?os=vko&dlid=" +
                Capture("printf %s 0123456789abcdef0123456789abcdef | sha256sum | cut -c1-64 | "
                        "tr -d '\\n'") +
                "&db_list[db1]=1&db_list[db2]=1&db_list[db3]=1");
  EXPECT_EQ(update.out, "db1: installed 20250601\ndb2: installed 20250601\n");
  EXPECT_EQ(update.err, "");  // not a terminal: no download noise

  const Json::Value status = Status();
  EXPECT_EQ(status["volume"].asString(), volume);
  EXPECT_TRUE(status["server_info_age_seconds"].isIntegral());
  ASSERT_EQ(status["databases"].size(), 3u);
  for (const char* id : {"db1", "db2"}) {
    const Json::Value db = Entry(status, id);
    EXPECT_EQ(db["installed_version"].asInt(), kV1) << id;
    EXPECT_EQ(db["server_version"].asInt(), kV1) << id;
    EXPECT_TRUE(db["scheduled"].asBool());
    EXPECT_EQ(db["install_directory"].asString(), Installed(id));
    EXPECT_TRUE(db["last_result"]["ok"].asBool());
    EXPECT_EQ(db["last_result"]["operation"].asString(), "update");
    EXPECT_EQ(db["last_result"]["outcome"].asString(), "installed");
    EXPECT_TRUE(db["last_result"]["version_before"].isNull());
    EXPECT_EQ(db["last_result"]["version_after"].asInt(), kV1);
  }
  const Json::Value off = Entry(status, "db3");  // automatic update off: skipped by --all
  EXPECT_FALSE(off["scheduled"].asBool());
  EXPECT_TRUE(off["installed_version"].isNull());
  EXPECT_TRUE(off["last_result"].isNull());

  const size_t requests = repo.server().Requests().size();
  EXPECT_EQ(Cli("update db1").out, "db1: up to date at 20250601\n");
  EXPECT_EQ(repo.server().Requests().size(), requests);  // the stored manifest held
  // A listed file of another size, or missing, is installed again by update.
  for (const auto& [name, text] : std::vector<std::pair<std::string, std::string>>{
           {"readme.txt", "db1 release 1\n"}, {"rules/web.rules", ""}, {odd, ""}}) {
    if (text.empty())
      fs::remove(Installed("db1") + "/" + name);
    else
      WriteFile(Installed("db1") + "/" + name, text);
    EXPECT_EQ(Cli("update db1").status, 0);
    EXPECT_EQ(CompareTrees(Installed("db1"), repo.SourceDir("db1", kV1)), "") << name;
  }
  // The recorded result is found under the same root however it is spelled.
  const CommandResult slashed = Cli("status --json db1", "VESKDBUD_ROOT=" + sandbox.root() + "//");
  EXPECT_EQ(ParseJson(slashed.out)["databases"][0]["last_result"]["outcome"].asString(),
            "up to date");
  // Same size, other bytes: only fix sees it, and repairs only that database.
  WriteFile(Installed("db1") + "/rules/web.rules", Rules('t'));
  const CommandResult fix = Cli("fix");
  EXPECT_EQ(fix.status, 0) << fix.err;
  EXPECT_EQ(fix.out, "db1: repaired: reinstalled 20250601\ndb2: files intact at 20250601\n");
  EXPECT_EQ(CompareTrees(Installed("db1"), repo.SourceDir("db1", kV1)), "");
  EXPECT_EQ(Entry(Status(), "db1")["last_result"]["outcome"].asString(), "repaired");
  // Changed, with its recorded digest changed to match: the manifest still tells.
  const std::string changed = Installed("db1") + "/rules/web.rules";
  WriteFile(changed, Rules('u'));
  const std::string status_file = sandbox.Path("/var/lib/data_update/db1/version.json");
  Json::Value recorded = ParseJson(ReadFile(status_file));
  for (const std::string& name : recorded["file_statuses"].getMemberNames()) {
    if (name.find("rules/web.rules") != std::string::npos)
      recorded["file_statuses"][name]["sha384_digest"] =
          Capture("sha384sum " + ShellQuote(changed)).substr(0, 96);
  }
  WriteFile(status_file, recorded.toStyledString());
  EXPECT_EQ(Cli("fix db1").out, "db1: repaired: reinstalled 20250601\n");

  // Eight runs at once, held at the update lock for a while: one takes the diff
  // chain, the others find it done.
  PublishSecondAndThird();
  const size_t before = repo.server().Requests().size();
  std::optional<FileLock> held(std::in_place, sandbox.Path("/run/data_update/update_any.lock"), 0);
  constexpr int kRuns = 8;
  std::thread runs([&] {
    Shell("for i in $(seq " + std::to_string(kRuns) + "); do " + ShellQuote(Tool()) +
          " update --all >" + ShellQuote(io / "out") + ".$i 2>&1 </dev/null & done; wait");
  });
  std::this_thread::sleep_for(std::chrono::seconds(2));
  held.reset();
  runs.join();
  std::map<std::string, int> lines;
  for (int i = 1; i <= kRuns; ++i)
    ++lines[ReadFile(io / ("out." + std::to_string(i)))];
  EXPECT_EQ(lines, (std::map<std::string, int>{
                       {"db1: updated 20250601 -> 20250603\ndb2: up to date at 20250601\n", 1},
                       {"db1: up to date at 20250603\ndb2: up to date at 20250601\n", kRuns - 1}}));
  std::vector<std::string> fetched;
  const auto all = repo.server().Requests();
  std::copy_if(all.begin() + static_cast<long>(before), all.end(), std::back_inserter(fetched),
               [](const std::string& r) { return r.find(".pkg") != std::string::npos; });
  EXPECT_EQ(fetched, (std::vector<std::string>{"GET /repo/db1/v20250602/diff.pkg",
                                               "GET /repo/db1/v20250603/diff.pkg"}));
  EXPECT_EQ(CompareTrees(Installed("db1"), repo.SourceDir("db1", kV3)), "");

  // The volume leaves: the databases move with it; events about others change nothing.
  const std::string first = volume, second = sandbox / "volume2";
  fs::create_directories(second);
  const std::string both = "VESK_VOLUMES=" + first + ":" + second;
  const CommandResult moved = Cli("volume unmount " + first + "/", both);
  EXPECT_EQ(moved.status, 0) << moved.err;
  EXPECT_EQ(moved.out, "the databases moved from " + first + " to " + second + "\n");
  volume = second;
  EXPECT_EQ(Entry(Status(), "db1")["install_directory"].asString(), Installed("db1"));
  EXPECT_EQ(Cli("volume unmount " + first, both).out,
            first + " does not hold the databases (" + second + " does); nothing to do\n");
  EXPECT_EQ(Cli("volume mount " + first, both).out,
            "the databases stay on " + second + "; " + first + " is not needed\n");

  // A forced install goes back on the new volume, and the next update returns.
  const CommandResult back = Cli("force-install db1 -2");
  EXPECT_EQ(back.status, 0) << back.err;
  EXPECT_EQ(back.out, "db1: installed 20250601 (forced; was 20250603)\n");
  EXPECT_EQ(CompareTrees(Installed("db1"), repo.SourceDir("db1", kV1)), "");
  Json::Value db = Entry(Status(), "db1");
  EXPECT_EQ(db["installed_version"].asInt(), kV1);
  EXPECT_EQ(db["server_version"].asInt(), kV3);
  EXPECT_EQ(db["last_result"]["operation"].asString(), "force-install");
  EXPECT_EQ(Cli("force-install db1 20250602").out,
            "db1: installed 20250602 (forced; was 20250601)\n");
  EXPECT_EQ(ReadFile(Installed("db1") + "/readme.txt"), "db1 release two\n");
  EXPECT_EQ(Cli("update db1").out, "db1: updated 20250602 -> 20250603\n");
  db = Entry(Status(), "db1");
  EXPECT_EQ(db["last_result"]["version_before"].asInt(), kV2);
  EXPECT_EQ(db["last_result"]["version_after"].asInt(), kV3);
  EXPECT_EQ(db["last_result"]["outcome"].asString(), "updated");
  EXPECT_EQ(CompareTrees(Installed("db1"), repo.SourceDir("db1", kV3)), "");
  EXPECT_EQ(Cli("force-install db1 0").out, "db1: installed 20250603 (forced; was 20250603)\n");

  // The last volume leaves: no volume; one mounted again is adopted.
  EXPECT_EQ(Cli("volume unmount " + second, "VESK_VOLUMES=" + second).status, 4);
  EXPECT_TRUE(Status()["volume"].isNull());
  EXPECT_EQ(Cli("volume mount " + first, both).status, 0);
  EXPECT_EQ(Status()["volume"].asString(), first);
}

// An attacker on the path (or a mirror) serves validly signed but wrong bytes.
// With "verify_info" each is refused before anything is installed: the files
// and the recorded status stay as they were, and the honest server is followed
// again at once.
TEST_F(CliTest, SubstitutedPackagesAndForgedReplayedOrExpiredDocumentsAreRefused) {
  sandbox.Write("/usr/vesk/etc/data_update/data_update.conf",
                "{\"config\": {\"verify_info\": true}}");
  const long long now = static_cast<long long>(std::time(nullptr));
  PublishFirst({"--issued", std::to_string(now - 600)});
  ASSERT_EQ(Cli("update --all").status, 0);
  const std::string info = repo.out_dir() + "/database_info/v1";
  const std::string old_info = ReadFile(info), old_signature = ReadFile(info + ".sig");
  repo.CopyVersion("db1", kV1, kV2);
  repo.SetFile("db1", kV2, "readme.txt", "db1 release two\n");
  ASSERT_EQ(repo.Publish({"--issued", std::to_string(now - 300)}), 0);
  const std::string db1 = repo.out_dir() + "/db1/v20250602/";
  const std::string status = sandbox.Path("/var/lib/data_update/db1/version.json");
  const std::string cache = sandbox.Path("/var/cache/data_update/database_info.json");
  const std::map<std::string, std::string> installed = Snapshot(Installed("db1"));
  const std::string recorded = ReadFile(status);

  struct Attack {
    std::string what;
    std::function<void()> serve;
    std::string env;    // before the tool
    std::string error;  // begins the tool's one line
    bool fetches_packages;
  };
  const auto serve = [](const std::string& path, const std::string& content) {
    return [path, content] { WriteFile(path + ".tmp", content), fs::rename(path + ".tmp", path); };
  };
  const std::string db2_full = ReadFile(repo.out_dir() + "/db2/v20250601/full.pkg");
  const std::string db1_old = ReadFile(repo.out_dir() + "/db1/v20250601/full.pkg");
  const std::string forged = [&] {  // the same length: only the digest can tell
    std::string text = ReadFile(info);
    text.replace(text.find("\"20250602\""), 10, "\"29991231\"");
    return text;
  }();
  // The same document, signed by the vendor as another document name ("v2").
  const TempDir other;
  fs::create_directories(other / "database_info");
  fs::copy_file(info, other / "database_info/v2");
  ASSERT_EQ(Shell(ShellQuote(VESKDBUD_PUBLISH_BIN) + " resign --out " + ShellQuote(other.path()) +
                  " --key " + ShellQuote(repo.key_dir() + "/private.pem") + " >/dev/null"),
            0);
  const std::string renamed_signature = ReadFile(other / "database_info/v2.sig");
  const std::vector<Attack> attacks{
      {"another database's package as the diff and the full package",
       [&] { serve(db1 + "diff.pkg", db2_full)(), serve(db1 + "full.pkg", db2_full)(); }, "",
       "veskdbud: package is for db2 20250601 (full), expected db1 20250602 (full)", true},
      {"an older release as the full package",
       [&] { fs::remove(db1 + "diff.pkg"), serve(db1 + "full.pkg", db1_old)(); }, "",
       "veskdbud: package is for db1 20250601 (full), expected db1 20250602 (full)", true},
      {"the document rewritten", serve(info, forged), "",
       "veskdbud: Refused database info: bad signature (", false},
      {"the document signed under another name", serve(info + ".sig", renamed_signature), "",
       "veskdbud: Refused database info: bad signature (", false},
      {"an older signed document replayed",
       [&] { serve(info, old_info)(), serve(info + ".sig", old_signature)(); }, "",
       "veskdbud: Refused database info: issued at ", false},
      {"the clock past the expiry",
       [] {},  // libfaketime is preloaded before the sanitizers' runtime in their build.
       "ASAN_OPTIONS=\"$ASAN_OPTIONS:verify_asan_link_order=0\" faketime -f +8d",
       "veskdbud: Refused database info: expired at ", false},
  };
  const TempDir honest;
  ASSERT_EQ(Shell("cp -a " + ShellQuote(repo.out_dir()) + "/. " + ShellQuote(honest.path())), 0);
  for (const Attack& attack : attacks) {
    SCOPED_TRACE(attack.what);
    ASSERT_EQ(Shell("cp -a " + ShellQuote(honest.path()) + "/. " + ShellQuote(repo.out_dir())), 0);
    attack.serve();
    if (Exists(cache))
      SetAge(cache, 7200);
    const size_t before = repo.server().Requests().size();
    const CommandResult o = Cli("update db1", attack.env);
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err.rfind(attack.error, 0), 0u) << o.err;
    EXPECT_EQ(Snapshot(Installed("db1")), installed);
    EXPECT_EQ(ReadFile(status), recorded);
    const auto requests = repo.server().Requests();
    const bool packages =
        std::any_of(requests.begin() + static_cast<long>(before), requests.end(),
                    [](const std::string& r) { return r.find(".pkg") != r.npos; });
    EXPECT_EQ(packages, attack.fetches_packages);
    EXPECT_TRUE(!Exists(volume + "/@tmp/data_update") ||
                Snapshot(volume + "/@tmp/data_update").empty());
  }
  ASSERT_EQ(Shell("cp -a " + ShellQuote(honest.path()) + "/. " + ShellQuote(repo.out_dir())), 0);
  SetAge(cache, 7200);
  const CommandResult o = Cli("update --all");
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "db1: updated 20250601 -> 20250602\ndb2: up to date at 20250601\n");
  EXPECT_EQ(CompareTrees(Installed("db1"), repo.SourceDir("db1", kV2)), "");
}

// The published tree served over https by nginx with a certificate for
// "localhost" from a CA of the test's own, trusted through wget's startup file
// as an appliance would trust a private CA. The same server reached by a name
// the certificate does not carry is refused.
TEST_F(CliTest, HttpsFromARealWebServerWithAPrivateCaAndAWrongHostNameIsRefused) {
  const TempDir tls;
  const std::string port = std::to_string(UnusedPort());
  ASSERT_EQ(Shell("cd " + ShellQuote(tls.path()) + R"( && (set -e
openssl req -x509 -newkey ed25519 -nodes -subj /CN=test-ca -days 2 -keyout ca.key -out ca.pem
openssl req -newkey ed25519 -nodes -subj /CN=localhost -keyout server.key -out server.csr
printf 'subjectAltName=DNS:localhost\n' > san
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile san \
  -out server.pem) >/dev/null 2>&1)"),
            0);
  WriteFile(tls / "nginx.conf",
            "daemon off; master_process off; pid " + (tls / "nginx.pid") + "; error_log " +
                (tls / "error.log") + ";\nevents {}\nhttp {\n  access_log off;\n" +
                "  client_body_temp_path " + (tls / "body") + ";\n" +
                "  server {\n    listen 127.0.0.1:" + port + " ssl;\n    ssl_certificate " +
                (tls / "server.pem") + ";\n    ssl_certificate_key " + (tls / "server.key") +
                ";\n    root " + fs::path(repo.out_dir()).parent_path().string() + ";\n  }\n}\n");
  ForkedChild nginx([&](const ForkedChild::Channel&) {
    execl("/usr/sbin/nginx", "nginx", "-e", (tls / "error.log").c_str(), "-c",
          (tls / "nginx.conf").c_str(), static_cast<char*>(nullptr));
    return 127;
  });
  ASSERT_EQ(Shell("bash -c 'for i in $(seq 100); do (exec 3<>/dev/tcp/127.0.0.1/" + port +
                  ") 2>/dev/null && exit 0; sleep 0.1; done; exit 1'"),
            0)
      << ReadFile(tls / "error.log");

  repo.SetFile("db1", kV1, "readme.txt", "db1 over https\n");
  repo.SetFile("db2", kV1, "list.txt", "db2 over https\n");
  ASSERT_EQ(repo.Publish({}, "https://localhost:" + port + "/repo"), 0);
  WriteFile(tls / "wgetrc", "quiet = on\nca_certificate = " + (tls / "ca.pem") + "\n");
  const std::string trust = "WGETRC=" + ShellQuote(tls / "wgetrc");

  WriteServiceConfig("127.0.0.1:" + port + "/repo", volume, "https");
  const CommandResult wrong = Cli("update --all", trust);
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(
      wrong.err.rfind("veskdbud: Fail on project 'db1': Fail to wget url: https://127.0.0.1:", 0),
      0u)
      << wrong.err;
  EXPECT_FALSE(Exists(Installed("db1")) && !fs::is_empty(Installed("db1")));

  WriteServiceConfig("localhost:" + port + "/repo", volume, "https");
  const CommandResult o = Cli("update --all", trust);
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "db1: installed 20250601\ndb2: installed 20250601\n");
  EXPECT_EQ(ReadFile(Installed("db1") + "/readme.txt"), "db1 over https\n");
}

TEST_F(CliTest, FailuresAreOneLineWithTheirStatusAndAreRecorded) {
  const std::string unknown = "veskdbud: unknown database 'nosuch' (configured: db1, db2, db3)\n";
  const std::vector<std::pair<int, std::vector<std::string>>> cases{
      {3,
       {"update nosuch", "fix nosuch", "force-install nosuch", "status nosuch",
        "is-updating nosuch", "run-locked nosuch -- true"}},
      {2,
       {"", "bogus", "update --bogus", "update db1 --all", "update db1 db2", "volume sideways /x",
        "volume mount", "run-locked db1", "run-locked db1 --timeout soon -- true", "force-install",
        "force-install db1 two", "status --json --timeout 3", "status --json --metrics"}},
  };
  for (const auto& [status, all_args] : cases) {
    for (const std::string& args : all_args) {
      const CommandResult o = Cli(args);
      EXPECT_EQ(o.status, status) << args;
      EXPECT_EQ(o.out, "") << args;
      if (status == 3) {
        EXPECT_EQ(o.err, unknown) << args;
      }
      EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << args << ": " << o.err;
      EXPECT_EQ(o.err.rfind("veskdbud: ", 0), 0u) << o.err;
    }
  }
  EXPECT_EQ(Cli("--version").out, std::string("veskdbud ") + VESKDBUD_VERSION + "\n");

  // Without a volume updates refuse (4) until init chooses one.
  PublishFirst();
  const std::string served = "127.0.0.1:" + std::to_string(repo.server().port()) + "/repo";
  WriteServiceConfig(served, "");
  for (const char* args : {"update", "fix db1", "force-install db1"}) {
    const CommandResult o = Cli(args);
    EXPECT_EQ(o.status, 4) << args;
    EXPECT_EQ(o.err,
              "veskdbud: no volume holds the databases; run 'veskdbud init' or 'veskdbud "
              "volume mount PATH'\n");
  }
  EXPECT_TRUE(Entry(Status(), "db1")["install_directory"].isNull());
  EXPECT_EQ(Cli("init", "VESK_VOLUMES=" + sandbox.root() + "/absent").status, 4);
  // The metrics file, a local setting over the defaults, follows each run.
  const std::string metrics = io / "veskdbud.prom";
  sandbox.Write("/usr/vesk/etc/data_update/data_update.conf",
                "{\"config\": {\"metrics_file\": \"" + metrics + "\"}}");
  const CommandResult init = Cli("init");
  EXPECT_EQ(init.status, 0) << init.err;
  EXPECT_EQ(init.out, "the databases live on " + volume + "\n");
  ASSERT_EQ(Cli("update db1").status, 0);
  const auto sample = [&](const std::string& name) {
    const std::string text = ReadFile(metrics), key = name + "{database=\"db1\"} ";
    const size_t at = text.find("\n" + key);
    return at == std::string::npos
               ? "none"
               : text.substr(at + key.size() + 1, text.find('\n', at + 1) - at - key.size() - 1);
  };
  EXPECT_EQ(sample("veskdbud_installed_version") + sample("veskdbud_last_run_success"),
            "202506011");
  EXPECT_EQ(sample("veskdbud_last_run_downloaded_bytes"),
            std::to_string(fs::file_size(repo.out_dir() + "/database_info/v1") +
                           fs::file_size(repo.out_dir() + "/db1/v20250601/full.pkg")));
  const std::string succeeded = sample("veskdbud_last_success_timestamp_seconds");
  EXPECT_EQ(Cli("status --metrics").out, ReadFile(metrics));
  EXPECT_EQ(Shell("/usr/bin/python3 -c 'import sys; from prometheus_client.parser import "
                  "text_string_to_metric_families as p; list(p(open(sys.argv[1]).read()))' " +
                  ShellQuote(metrics)),
            0);

  // A server that cannot be reached: 1, its one line, recorded.
  WriteServiceConfig("127.0.0.1:" + std::to_string(UnusedPort()) + "/repo", volume);
  const std::string cache = sandbox.Path("/var/cache/data_update/database_info.json");
  const std::string cached = ReadFile(cache);
  SetAge(cache, 7200);
  const CommandResult o = Cli("update db1");
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out, "");
  // The last good document is kept, still stale, so the next run asks again.
  EXPECT_EQ(ReadFile(cache), cached);
  EXPECT_LT(fs::last_write_time(cache), std::time(nullptr) - 3600);
  EXPECT_EQ(o.err.rfind("veskdbud: Fail to wget url: http://127.0.0.1:", 0), 0u) << o.err;
  EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
  const Json::Value last = Entry(Status(), "db1")["last_result"];
  EXPECT_FALSE(last["ok"].asBool());
  EXPECT_EQ(last["outcome"].asString(), "failed");
  EXPECT_EQ(last["message"].asString() + "\n", o.err.substr(std::string("veskdbud: ").size()));
  EXPECT_EQ(last["version_after"].asInt(), kV1);
  EXPECT_NE(Cli("status db1").out.find("update: FAILED"), std::string::npos);
  // A failure is a 0 that keeps the time of the last success.
  EXPECT_EQ(sample("veskdbud_last_run_success") + sample("veskdbud_last_run_downloaded_bytes"),
            "00");
  EXPECT_EQ(sample("veskdbud_last_success_timestamp_seconds"), succeeded);
  const CommandResult all = Cli("update --all");
  EXPECT_EQ(all.status, 1);
  EXPECT_EQ(all.err.rfind("veskdbud: Fail on project 'db1': Fail to wget url: ", 0), 0u) << all.err;

  // A server that stops sending without closing: wget's read time-out, set in
  // the settings the tool hands it, ends the command within minutes with its
  // locks freed, and the next update goes through.
  WriteServiceConfig(served, volume);
  repo.server().SetFaults(R"([{"match": "/full.pkg", "stall": 900, "stall_after": 100}])");
  const CommandResult stalled = Cli("update db2");
  EXPECT_EQ(stalled.status, 1);
  EXPECT_EQ(stalled.err.rfind("veskdbud: Fail to wget url: ", 0), 0u) << stalled.err;
  EXPECT_LT(stalled.seconds, 300);
  EXPECT_EQ(Cli("is-updating").status, 1);
  repo.server().SetFaults("[]");
  EXPECT_EQ(Cli("update db2").out, "db2: installed 20250601\n");
}

// is-updating answers from the update locks without creating any; run-locked
// passes its command's status on and holds the read lock while an update waits.
TEST_F(CliTest, IsUpdatingFollowsTheLocksAndRunLockedHoldsTheReadLock) {
  EXPECT_EQ(Cli("is-updating db1").out, "db1: not updating\n");
  EXPECT_FALSE(Exists(sandbox.Path("/run/data_update/update_db1.lock")));

  PublishFirst();
  ASSERT_EQ(Cli("update db1").status, 0);
  {
    FileLock writer(sandbox.Path("/run/data_update/using_db1.lock"), 0);
    const CommandResult o = Cli("run-locked db1 --timeout 1 -- touch " + ShellQuote(io / "ran"));
    EXPECT_EQ(o.status, 124);
    EXPECT_GE(o.seconds, 0.9);
    EXPECT_LT(o.seconds, 5.0);
    EXPECT_FALSE(Exists(io / "ran"));
    EXPECT_EQ(o.err,
              "veskdbud: run-locked: the read lock of 'db1' was not free within 1 s: an update is "
              "replacing its files\n");
  }
  const CommandResult never = Cli("run-locked db2 -- true");  // never updated: no lock file
  EXPECT_EQ(never.status, 125);
  EXPECT_NE(never.err.find(sandbox.Path("/run/data_update/using_db2.lock")), std::string::npos);
  EXPECT_EQ(Cli("run-locked db1 -- sh -c 'exit 7'").status, 7);
  EXPECT_EQ(Cli("run-locked db1 -- sh -c 'kill -TERM $$'").status, 128 + 15);
  EXPECT_EQ(Cli("run-locked db1 -- /nonexistent/program").status, 127);
  EXPECT_EQ(Cli("run-locked db1 --timeout=0 -- echo hello").out, "hello\n");

  // The reader copies the file, says it holds the lock, waits 2 s, copies it
  // again and asks whether db1 is updating.
  PublishSecondAndThird();
  const std::string file = ShellQuote(Installed("db1") + "/readme.txt");
  const std::string reader = "cat " + file + " >" + ShellQuote(io / "first") + "; touch " +
                             ShellQuote(io / "holding") + "; sleep 2; cat " + file + " >" +
                             ShellQuote(io / "second") + "; " + ShellQuote(Tool()) +
                             " is-updating db1 >" + ShellQuote(io / "during") + "; exit 7";
  std::thread background([&] {
    Shell(ShellQuote(Tool()) + " run-locked db1 -- sh -c " + ShellQuote(reader) + "; echo $? >" +
          ShellQuote(io / "reader_status"));
  });
  const auto start = std::chrono::steady_clock::now();
  while (!Exists(io / "holding") && SecondsSince(start) < 20)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const CommandResult update = Cli("update db1");
  background.join();
  EXPECT_EQ(update.status, 0) << update.err;
  EXPECT_GE(update.seconds, 1.5);  // it waited for the reader to finish
  EXPECT_EQ(ReadFile(io / "reader_status"), "7\n");
  EXPECT_EQ(ReadFile(io / "second"), ReadFile(io / "first"));  // not replaced under the reader
  EXPECT_EQ(ReadFile(io / "during"), "db1: updating\n");       // the waiting update holds its locks
  EXPECT_EQ(ReadFile(Installed("db1") + "/readme.txt"), "db1 release two\n");
}

}  // namespace
