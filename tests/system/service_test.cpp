// The service front end to end (Update, InfoGetter, Checker, VolumeHandler,
// InitService) against a published repository served on 127.0.0.1. Volumes
// here are VESK_VOLUMES directories; real mounts are in service_process_test.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <fstream>

#include "dataupdate/error.h"
#include "dataupdate/updater.h"
#include "service_fixture.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

std::string Sha384Hex(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return GetSha384(in);
}

class ServiceFrontTest : public ServiceTest {
 protected:
  // The status file holds `version`, the server's fetch time and, per file,
  // the digest of what is installed now.
  void ExpectStatus(const std::string& id, int version, size_t files,
                    const std::string& prefix) const {
    const Json::Value status = Status(id);
    EXPECT_EQ(status["data_version"], std::to_string(version)) << id;
    EXPECT_EQ(status["last_fetch_time"], repo.Remote(id).last_fetch_time) << id;
    EXPECT_EQ(status["file_statuses"].size(), files) << id;
    for (const auto& name : status["file_statuses"].getMemberNames()) {
      const std::string path = prefix + (name[0] == '/' ? "" : "/") + name;
      EXPECT_EQ(status["file_statuses"][name]["sha384_digest"].asString(), Sha384Hex(path))
          << id << " " << name;
    }
  }

  // The lock files taken ("+name") and released ("-name"), in order.
  std::vector<std::string> Locks() const {
    std::vector<std::string> locks;
    const std::string dir = sandbox.Path("/run/data_update/");
    for (const auto& line : log.Matching("file_lock.cpp")) {
      const size_t at = line.find(dir);
      const char sign = line.find("Acquire lock") != std::string::npos ? '+' : '-';
      locks.push_back(sign + line.substr(at + dir.size()));
    }
    return locks;
  }

  Service service;
};

// Two databases across three releases: InitService choosing the volume, first
// installs, the cache hiding a release for an hour, diff chains, the volume
// leaving, a repair, a forced downgrade and the update that undoes it.
TEST_F(ServiceFrontTest, TwoDatabasesLiveThroughThreeReleasesAVolumeChangeAndADowngrade) {
  const std::string first = sandbox / "volume_a";
  const std::string second = sandbox / "volume_b";
  fs::create_directories(first);
  fs::create_directories(second);
  ScopedEnv volumes("VESK_VOLUMES", (first + ":" + second).c_str());
  WriteDefaultConfig(sandbox, repo, "", {{"db1"}, {"db2"}});
  const auto prefix = [](const std::string& on, const std::string& id) {
    return on + "/@database/autoupdate/" + id;
  };

  // Release 0: the service starts, chooses the first volume, installs both whole.
  Release("db1", 0);
  Release("db2", 0);
  ASSERT_EQ(repo.Publish(), 0);
  // Published yesterday, as the server's Last-Modified says: the cache is
  // dated by its download all the same.
  SetAge(repo.out_dir() + "/database_info/v1", 24 * 3600);
  InitService();
  EXPECT_TRUE(log.Contains("warning: volume_handler.cpp:45 Autoupdate set the new volume at '" +
                           first + "'."));
  EXPECT_EQ(service.config->GetCurVolume(), first);
  service.update.UpdateAllProjects();
  for (const char* id : {"db1", "db2"}) {
    EXPECT_EQ(CompareTrees(prefix(first, id), repo.SourceDir(id, kFirst)), "") << id;
    ExpectStatus(id, kFirst, 3, prefix(first, id));
    EXPECT_TRUE(log.Contains(std::string("warning: update.cpp:252 Update ") + id));
    EXPECT_TRUE(log.Contains(std::string("notice: updater.cpp:84 Prepare full update: ") + id));
    EXPECT_TRUE(log.Contains(std::string("warning: update.cpp:270 Update ") + id +
                             " completed and succeed"));
  }
  EXPECT_EQ(Requests("/database_info/"), 1u);

  // Release 1 stays unseen while the cache is under an hour old.
  Release("db1", 1);
  Release("db2", 1);
  ASSERT_EQ(repo.Publish(), 0);
  SetAge(Cache(), 3600 - 60);
  log.Clear();
  service.update.UpdateAllProjects();
  EXPECT_EQ(log.Matching("has been up to date"),
            (std::vector<std::string>{"info: update.cpp:248 'db1' has been up to date",
                                      "info: update.cpp:248 'db2' has been up to date"}));
  EXPECT_EQ(Requests("/database_info/"), 1u);
  EXPECT_EQ(Status("db1")["data_version"], std::to_string(kFirst));

  // An older cache is fetched again; the release arrives by the diff packages.
  SetAge(Cache(), 3601 + 60);
  log.Clear();
  service.update.UpdateAllProjects();
  EXPECT_EQ(Requests("/database_info/"), 2u);
  EXPECT_EQ(log.Matching("updater.cpp"),
            (std::vector<std::string>{"notice: updater.cpp:75 Prepare diff update: db1",
                                      "notice: updater.cpp:92 Apply update: db1",
                                      "notice: updater.cpp:75 Prepare diff update: db2",
                                      "notice: updater.cpp:92 Apply update: db2"}));
  for (const char* id : {"db1", "db2"}) {
    EXPECT_EQ(CompareTrees(prefix(first, id), repo.SourceDir(id, kFirst + 1), true), "") << id;
    ExpectStatus(id, kFirst + 1, 3, prefix(first, id));
    EXPECT_EQ(Requests(std::string("/") + id + "/v7000002/diff.pkg"), 1u) << id;
  }
  EXPECT_EQ(Requests("/full.pkg"), 2u);  // release 0 only

  // The volume leaves: the databases move with it to the other one.
  log.Clear();
  service.volumes.UnmountVolumeEvent(first);
  EXPECT_EQ(
      log.Matching("volume_handler.cpp"),
      std::vector<std::string>{"warning: volume_handler.cpp:67 Moving databases from " + first +
                               "/@database/autoupdate to " + second + "/@database/autoupdate"});
  EXPECT_EQ(service.config->GetCurVolume(), second);
  EXPECT_FALSE(fs::exists(first + "/@database/autoupdate"));
  for (const char* id : {"db1", "db2"}) {
    EXPECT_EQ(CompareTrees(prefix(second, id), repo.SourceDir(id, kFirst + 1), true), "") << id;
    ExpectStatus(id, kFirst + 1, 3, prefix(second, id));
  }

  // Release 2 lands on the new volume; a damaged file of db2 is repaired.
  Release("db1", 2);
  Release("db2", 2);
  ASSERT_EQ(repo.Publish(), 0);
  SetAge(Cache(), 3601 + 60);
  log.Clear();
  service.update.UpdateAllProjects();
  EXPECT_EQ(log.Matching("completed and succeed").size(), 2u);
  EXPECT_EQ(log.Matching("Diff update fail"), std::vector<std::string>{});
  for (const char* id : {"db1", "db2"}) {
    EXPECT_EQ(CompareTrees(prefix(second, id), repo.SourceDir(id, kFirst + 2), true), "") << id;
    ExpectStatus(id, kFirst + 2, 3, prefix(second, id));
  }
  WriteFile(prefix(second, "db2") + "/readme.txt", "damaged\n");
  log.Clear();
  service.update.FixAllProjects();
  EXPECT_EQ(log.Matching("completed and succeed"),
            std::vector<std::string>{"warning: update.cpp:299 Fix db2 completed and succeed"});
  EXPECT_EQ(CompareTrees(prefix(second, "db2"), repo.SourceDir("db2", kFirst + 2)), "");
  ExpectStatus("db2", kFirst + 2, 3, prefix(second, "db2"));

  // A forced downgrade of db1 installs release 1 in place of release 2 and
  // records every file.
  const std::string db1 = prefix(second, "db1");
  log.Clear();
  service.update.ForceInstall("db1", -1);
  EXPECT_EQ(log.Matching("update.cpp"), std::vector<std::string>{});  // it logs nothing itself
  EXPECT_EQ(Requests("/db1/v7000002/full.pkg"), 1u);
  EXPECT_EQ(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1)), "");
  ExpectStatus("db1", kFirst + 1, 3, db1);

  // The next update brings it back to release 2 by the diff package.
  log.Clear();
  service.update.UpdateProject("db1");
  EXPECT_EQ(log.Matching("Diff update fail"), std::vector<std::string>{});
  EXPECT_EQ(CompareTrees(db1, repo.SourceDir("db1", kFirst + 2), true), "");
  ExpectStatus("db1", kFirst + 2, 3, db1);
  EXPECT_FALSE(fs::exists(second + "/@tmp/data_update"));
}

// The status file decides where an update starts: a missing one reads as
// version -1 (a full install), a newer one is never downgraded.
TEST_F(ServiceFrontTest, StatusFileMissingOrNewerDecidesTheUpdate) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);

  service.update.UpdateProject("db1");
  EXPECT_EQ(log.Matching("update.cpp:17"),
            std::vector<std::string>{"info: update.cpp:170 File not exist: " + StatusPath("db1")});
  EXPECT_EQ(service.info->GetDatabaseStatus("db1").data_version, kFirst);

  // A local version above the server's is up to date: nothing is fetched.
  DatabaseStatus newer = service.info->GetDatabaseStatus("db1");
  newer.data_version = kFirst + 5;
  service.info->SetDatabaseStatus("db1", newer);
  const std::string manifest = sandbox.Path("/var/lib/data_update/db1/manifest");
  std::string text = ReadFile(manifest);  // the manifest goes with the release
  const std::string mark = "\ndata_version " + std::to_string(kFirst) + "\n";
  ASSERT_NE(text.find(mark), std::string::npos);
  text.replace(text.find(mark), mark.size(), "\ndata_version " + std::to_string(kFirst + 5) + "\n");
  WriteFile(manifest, text);
  const std::string written = ReadFile(StatusPath("db1"));
  log.Clear();
  service.update.UpdateProject("db1");
  EXPECT_EQ(log.Matching("update.cpp"),
            std::vector<std::string>{"info: update.cpp:248 'db1' has been up to date"});
  EXPECT_EQ(Locks(),
            (std::vector<std::string>{"+update_any.lock", "+update_db1.lock", "+fresh_info.lock",
                                      "-fresh_info.lock", "+fresh_info.lock", "-fresh_info.lock",
                                      "-update_db1.lock", "-update_any.lock"}));
  EXPECT_EQ(ReadFile(StatusPath("db1")), written);
  EXPECT_EQ(Requests(".pkg"), 1u);  // the first install
}

// Every way the database-info document can fail to arrive whole: a clear
// error, and the last good document kept, stale, so the next call asks again.
// (Written in place, a failed download once left garbage cached for an hour.)
TEST_F(ServiceFrontTest, EveryFailedRefreshKeepsTheLastGoodDocumentAndAsksAgain) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  service.update.UpdateProject("db1");
  const std::string installed = ReadFile(StatusPath("db1"));
  const std::string cached = ReadFile(Cache());
  const std::string fresh = Cache() + ".tmp";
  const std::string document = repo.out_dir() + "/database_info/v1";
  const std::string good = ReadFile(document);
  const std::string url = service.info->GetDatabaseUrl();
  const std::string wget_failed = "Fail to wget url: " + url;
  const std::string undecodable = "Fail to decode: " + fresh;

  struct Fault {
    std::string what;
    std::string rules;   // the server's fault rules
    std::string served;  // what the document holds; "" leaves it as published
    std::string error;
  };
  const std::vector<Fault> faults{
      {"404", R"([{"match": "/database_info/", "status": 404}])", "", wget_failed},
      {"500", R"([{"match": "/database_info/", "status": 500}])", "", wget_failed},
      {"no answer", R"([{"match": "/database_info/", "drop": true}])", "", wget_failed},
      {"cut off half-way",
       R"([{"match": "/database_info/", "cut": )" + std::to_string(good.size() / 2) + "}]", "",
       wget_failed},
      {"stalled, then closed", R"([{"match": "/database_info/", "stall": 1, "stall_after": 10}])",
       "", wget_failed},
      {"garbage", "[]", "<html>busy</html>", undecodable},
      {"truncated document", "[]", good.substr(0, good.size() / 2), undecodable},
      {"not an object", "[]", "[1, 2, 3]", undecodable},
      {"empty", "[]", " ", undecodable},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.what);
    repo.server().SetFaults(fault.rules);
    WriteFile(document, fault.served.empty() ? good : fault.served);
    SetAge(Cache(), 3601 + 60);
    const size_t asked = Requests("/database_info/");
    log.Clear();
    EXPECT_UPDATE_ERROR(service.update.UpdateProject("db1"), fault.error);
    EXPECT_EQ(log.Matching("update.cpp"),
              (std::vector<std::string>{"info: update.cpp:131 Fail during fresh database info",
                                        "info: update.cpp:132 Error message: " + fault.error,
                                        "info: update.cpp:272 Update db1 fail: " + fault.error}));
    EXPECT_GT(Requests("/database_info/"), asked);
    EXPECT_EQ(ReadFile(StatusPath("db1")), installed);
    EXPECT_EQ(ReadFile(Cache()), cached);
    EXPECT_TRUE(service.io->FileCreateOver(Cache(), 3600)) << "the failed refresh dated the cache";
    EXPECT_FALSE(Exists(fresh));
  }

  // The server cannot be reached at all.
  const std::string down = "127.0.0.1:" + std::to_string(UnusedPort());
  sandbox.Write("/usr/vesk/etc/data_update/data_update.conf",
                R"({"config": {"db_netloc": ")" + down + R"("}})");
  const std::string refused = "Fail to wget url: " + service.info->GetDatabaseUrl();
  ASSERT_EQ(refused.rfind("Fail to wget url: http://" + down + "/database_info/v1?os=vko", 0), 0u);
  EXPECT_UPDATE_ERROR(service.update.UpdateProject("db1"), refused);
  EXPECT_EQ(ReadFile(Cache()), cached);
  EXPECT_FALSE(Exists(fresh));

  // Back to normal: the refresh replaces the cache and dates it now.
  fs::remove(sandbox.Path("/usr/vesk/etc/data_update/data_update.conf"));
  repo.server().SetFaults("[]");
  WriteFile(document, good);
  Release("db1", 1);
  ASSERT_EQ(repo.Publish(), 0);
  log.Clear();
  service.update.UpdateProject("db1");
  EXPECT_TRUE(log.Contains("warning: update.cpp:270 Update db1 completed and succeed"));
  EXPECT_EQ(ReadFile(Cache()), ReadFile(document));
  EXPECT_FALSE(service.io->FileCreateOver(Cache(), 3600));
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 1), true), "");
}

// Packages that fail to arrive whole: a broken diff falls back to the whole
// package, a broken whole package fails clearly losing nothing installed, and
// a connection cut or stalled once is retried.
TEST_F(ServiceFrontTest, PackageDownloadFaultsFallBackOrFailAndLoseNothingInstalled) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  Release("db1", 0);
  Release("db1", 1);
  ASSERT_EQ(repo.Publish(), 0);
  service.update.UpdateProject("db1");
  Release("db1", 2);
  ASSERT_EQ(repo.Publish(), 0);
  SetAge(Cache(), 3601 + 60);
  const std::string installed = ReadFile(StatusPath("db1"));
  const std::string manifest = sandbox.Path("/var/lib/data_update/db1/manifest");
  const std::string installed_manifest = ReadFile(manifest);
  const auto before = Snapshot(Prefix("db1"));
  const RemoteInfo remote = repo.Remote("db1");
  const std::string full = repo.out_dir() + "/db1/v" + std::to_string(kFirst + 2) + "/full.pkg";
  const std::string diff = repo.out_dir() + "/db1/v" + std::to_string(kFirst + 2) + "/diff.pkg";
  const std::string good_full = ReadFile(full);
  const std::string good_diff = ReadFile(diff);
  const std::string package = volume + "/@tmp/data_update/db1_" + std::to_string(kFirst + 2);
  const std::string wget_failed = "Fail to wget url: " + remote.download_link;
  const std::string unopenable = "veskarchive_open " + package + " failed, ret: ";

  struct Fault {
    std::string what;
    std::string rules;
    std::string full;   // what the whole package holds; "" as published
    std::string diff;   // what the diff package holds; "" as published
    std::string error;  // the update's error (a prefix); "" when it succeeds
  };
  const std::string cut_full = std::to_string(good_full.size() / 2);
  const std::vector<Fault> faults{
      {"whole package 404",
       R"([{"match": "/full.pkg", "status": 404}, {"match": "/diff.pkg", "status": 404}])", "", "",
       wget_failed},
      {"whole package 500",
       R"([{"match": "/full.pkg", "status": 500}, {"match": "/diff.pkg", "status": 500}])", "", "",
       wget_failed},
      {"whole package cut off every time",
       R"([{"match": "/full.pkg", "cut": )" + cut_full +
           R"(}, {"match": "/diff.pkg", "status": 404}])",
       "", "", wget_failed},
      {"whole package garbled", R"([{"match": "/diff.pkg", "status": 404}])",
       std::string(good_full.size(), 'g'), "", unopenable},
      {"whole package truncated", R"([{"match": "/diff.pkg", "status": 404}])",
       good_full.substr(0, good_full.size() / 2), "", unopenable},
      {"diff package missing", R"([{"match": "/diff.pkg", "status": 404}])", "", "", ""},
      {"diff package garbled", "[]", "", std::string(good_diff.size(), 'g'), ""},
      {"whole package cut off once",
       R"([{"match": "/full.pkg", "cut": )" + cut_full +
           R"(, "times": 1}, {"match": "/diff.pkg", "status": 404}])",
       "", "", ""},
      {"diff package stalled once, then closed",
       R"([{"match": "/diff.pkg", "stall": 1, "stall_after": 100, "times": 1}])", "", "", ""},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.what);
    repo.server().SetFaults(fault.rules);
    WriteFile(full, fault.full.empty() ? good_full : fault.full);
    WriteFile(diff, fault.diff.empty() ? good_diff : fault.diff);
    log.Clear();
    if (fault.error.empty()) {
      service.update.UpdateProject("db1");
      EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 2), true), "");
      EXPECT_EQ(Status("db1")["data_version"], std::to_string(kFirst + 2));
      // Back to release 1 for the next fault.
      fs::remove_all(Prefix("db1"));
      for (const auto& [name, content] : before)
        WriteFile(Prefix("db1") + "/" + name, content);
      WriteFile(StatusPath("db1"), installed);
      WriteFile(manifest, installed_manifest);
    } else {
      try {
        service.update.UpdateProject("db1");
        ADD_FAILURE() << "no error";
      } catch (const UpdateError& e) {
        EXPECT_EQ(std::string(e.what()).rfind(fault.error, 0), 0u) << e.what();
      }
      EXPECT_EQ(ReadFile(StatusPath("db1")), installed);
      EXPECT_EQ(Snapshot(Prefix("db1")), before);
      EXPECT_EQ(service.config->GetCurVolume(), volume);
    }
    const std::string tmp = volume + "/@tmp/data_update";
    EXPECT_TRUE(!fs::exists(tmp) || fs::is_empty(tmp));
  }
  // wget's retry got the stalled diff package whole: no fallback.
  EXPECT_EQ(log.Matching("Diff update fail"), std::vector<std::string>{});
}

// Every configured database, sorted byte-wise, with its format version, after
// the machine identity; nothing is escaped.
TEST_F(ServiceFrontTest, QueryStringSortsAllDatabasesAndCarriesTheMachineIdentity) {
  WriteDefaultConfig(sandbox, repo, volume,
                     {{"b", "%VOLUME%", "3", false}, {"a", "%ROOTFS%", "1.0 beta"}, {"B"}});
  sandbox.Write("/etc/machine-id", "  0123456789abcdef0123456789abcdef\n");
  const std::string identity =
      Capture("printf %s 0123456789abcdef0123456789abcdef | sha256sum | cut -c1-64 | tr -d '\\n'");
  ASSERT_EQ(identity.size(), 64u);

  const std::string query =
      "?os=vko&dlid=" + identity + "&db_list[B]=1&db_list[a]=1.0 beta&db_list[b]=3";
  EXPECT_EQ(service.info->GetQueryString(), query);
  EXPECT_EQ(service.info->GetDatabaseUrl(),
            "http://127.0.0.1:" + std::to_string(repo.server().port()) + "/repo/database_info/v1" +
                query);
  EXPECT_FALSE(log.Contains("err: Failed to init hwid context"));
  // What reaches the server (wget itself sends the space as %20).
  ASSERT_EQ(repo.Publish(), 0);
  service.info->GetDatabaseInfo();
  EXPECT_EQ(repo.server().Requests(),
            std::vector<std::string>{"GET /repo/database_info/v1?os=vko&dlid=" + identity +
                                     "&db_list[B]=1&db_list[a]=1.0%20beta&db_list[b]=3"});

  // Without an identity the query is still sent, with an empty one.
  sandbox.Write("/etc/machine-id", "");
  EXPECT_EQ(service.info->GetQueryString(),
            "?os=vko&dlid=&db_list[B]=1&db_list[a]=1.0 beta&db_list[b]=3");
  EXPECT_EQ(log.Matching("hwid"), std::vector<std::string>{"err: Failed to init hwid context"});
  sandbox.Write("/usr/share/data_update/databases.conf", "{}");
  EXPECT_EQ(service.info->GetQueryString(), "?os=vko&dlid=");
}

// The document's own "deprecated" wins when true; otherwise each entry keeps
// its value, and an entry without one takes the document's, absent included.
TEST_F(ServiceFrontTest, DeprecatedOfTheDocumentOverridesEntriesOnlyWhenTrue) {
  WriteDefaultConfig(sandbox, repo, volume, {{"kept"}, {"marked"}, {"plain"}});
  const auto write_cache = [&](const std::string& top) {
    const std::string entry = R"("data_version": "4", "last_fetch_time": 9, "download_link": "x")";
    WriteFile(Cache(), "{" + top + R"("db_list": {"kept": {)" + entry +
                           R"(, "deprecated": false}, "marked": {)" + entry +
                           R"(, "deprecated": true}, "plain": {)" + entry + "}}}");
  };
  const auto deprecated = [&](const std::string& id) {
    return service.info->GetRemoteInfo(id).deprecated;
  };

  write_cache("");
  EXPECT_FALSE(deprecated("kept"));
  EXPECT_TRUE(deprecated("marked"));
  EXPECT_UPDATE_ERROR(deprecated("plain"), "Invalid json object for RemoteInfo");
  write_cache(R"("deprecated": false, )");
  EXPECT_FALSE(deprecated("kept"));
  EXPECT_TRUE(deprecated("marked"));
  EXPECT_FALSE(deprecated("plain"));
  write_cache(R"("deprecated": true, )");
  EXPECT_TRUE(deprecated("kept"));
  EXPECT_TRUE(deprecated("marked"));
  EXPECT_TRUE(deprecated("plain"));
  EXPECT_EQ(service.info->GetRemoteInfo("plain"), RemoteInfo(4, 9, true, "x"));
  EXPECT_EQ(repo.server().Requests(), std::vector<std::string>{});  // all from the fresh cache
}

// The all-databases runs skip databases whose automatic update is off, stop
// at the first failure naming the database, and stop quietly without a volume.
TEST_F(ServiceFrontTest, AllProjectsSkipUnscheduledStopAtTheFirstFailureAndWithoutVolume) {
  WriteDefaultConfig(sandbox, repo, volume, {{"a"}, {"b", "%VOLUME%", "1", false}, {"c"}, {"d"}});
  for (const char* id : {"a", "b", "c", "d"})
    Release(id, 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string missing = repo.BaseUrl() + "/c/v7000001/full.pkg";
  fs::remove(repo.out_dir() + "/c/v7000001/full.pkg");

  EXPECT_UPDATE_ERROR(service.update.UpdateAllProjects(),
                      "Fail on project 'c': Fail to wget url: " + missing);
  EXPECT_TRUE(log.Contains("info: update.cpp:272 Update c fail: Fail to wget url: " + missing));
  EXPECT_EQ(CompareTrees(Prefix("a"), repo.SourceDir("a", kFirst)), "");
  EXPECT_EQ(Requests("/b/"), 0u);
  EXPECT_EQ(Requests("/d/"), 0u);
  for (const char* id : {"b", "c", "d"})
    EXPECT_FALSE(Exists(StatusPath(id))) << id;
  EXPECT_UPDATE_ERROR(service.update.UpdateProject("z"), "Project z not supported");
  EXPECT_UPDATE_ERROR(service.update.FixProject("z"), "Project z not supported");
  EXPECT_TRUE(log.Contains("info: update.cpp:272 Update z fail: Project z not supported"));
  EXPECT_TRUE(log.Contains("info: update.cpp:301 Fix z fail: Project z not supported"));
  // Asked for by name, an unscheduled database is updated.
  service.update.UpdateProject("b");
  EXPECT_EQ(CompareTrees(Prefix("b"), repo.SourceDir("b", kFirst)), "");

  // Repairs walk the same way: "a" is repaired, "b" skipped, "c" fails.
  WriteFile(Prefix("a") + "/readme.txt", "damaged\n");
  WriteFile(Prefix("b") + "/readme.txt", "damaged\n");
  log.Clear();
  EXPECT_UPDATE_ERROR(service.update.FixAllProjects(),
                      "Fail on project 'c': Fail to wget url: " + missing);
  EXPECT_EQ(CompareTrees(Prefix("a"), repo.SourceDir("a", kFirst)), "");
  EXPECT_EQ(ReadFile(Prefix("b") + "/readme.txt"), "damaged\n");
  EXPECT_EQ(
      log.Matching("update.cpp"),
      (std::vector<std::string>{"warning: update.cpp:299 Fix a completed and succeed",
                                "info: update.cpp:170 File not exist: " + StatusPath("c"),
                                "info: update.cpp:301 Fix c fail: Fail to wget url: " + missing}));

  // No volume: the runs end at the first scheduled database, without error.
  service.config->SetCurVolume("");
  log.Clear();
  service.update.UpdateAllProjects();
  service.update.FixAllProjects();
  service.update.UpdateProject("d");
  EXPECT_EQ(log.Matching("update.cpp"),
            (std::vector<std::string>{"warning: update.cpp:205 There is no volume, stopping "
                                      "operation.",
                                      "warning: update.cpp:205 There is no volume, stopping "
                                      "operation.",
                                      "info: update.cpp:170 File not exist: " + StatusPath("d"),
                                      "warning: update.cpp:252 Update d",
                                      "warning: update.cpp:255 There is no volume, stopping "
                                      "updating."}));
  EXPECT_FALSE(Exists(StatusPath("d")));
  EXPECT_EQ(Requests("/d/"), 0u);
}

// A forced install takes the announced link and rewrites the version's digits:
// 0 is the server's version, -1 the one before it, a positive number itself.
TEST_F(ServiceFrontTest, ForceInstallRewritesTheVersionInTheLinkAndInstallsExactlyThatRelease) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  for (int n = 0; n < 3; ++n)
    Release("db1", n);
  repo.SetFile("db1", kFirst + 2, "only_in_last.txt", "last\n");
  ASSERT_EQ(repo.Publish(), 0);
  const RemoteInfo remote = repo.Remote("db1");
  ASSERT_EQ(remote.download_link, repo.BaseUrl() + "/db1/v7000003/full.pkg");

  const auto expect_forced = [&](int version, int installed) {
    service.update.ForceInstall("db1", version);
    EXPECT_EQ(Requests("/db1/v" + std::to_string(installed) + "/full.pkg"), 1u) << version;
    const Json::Value status = Status("db1");
    EXPECT_EQ(status["data_version"], std::to_string(installed));
    EXPECT_EQ(status["last_fetch_time"], remote.last_fetch_time);
    EXPECT_EQ(status["file_statuses"].size(), Snapshot(Prefix("db1")).size());
    const DatabaseStatus recorded = service.info->GetDatabaseStatus("db1");
    EXPECT_TRUE(CheckStatus(recorded.file_statuses, Prefix("db1")));
    EXPECT_FALSE(Fixer("db1", remote, volume, Prefix("db1"), volume).IsFixNeeded(recorded));
  };
  expect_forced(0, kFirst + 2);
  EXPECT_EQ(Locks(),
            (std::vector<std::string>{"+update_any.lock", "+update_db1.lock", "+fresh_info.lock",
                                      "-fresh_info.lock", "+using_db1.lock", "-using_db1.lock",
                                      "-update_db1.lock", "-update_any.lock"}));
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 2)), "");
  expect_forced(-1, kFirst + 1);
  // Exactly release 1: the file it lacks is gone.
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 1)), "");
  expect_forced(kFirst, kFirst);
  EXPECT_EQ(ReadFile(Prefix("db1") + "/readme.txt"), "db1 release 0\n");
  EXPECT_EQ(Requests(".pkg"), 3u);

  // A version the server does not have fails the download; the status stays.
  const std::string before = ReadFile(StatusPath("db1"));
  EXPECT_UPDATE_ERROR(service.update.ForceInstall("db1", kFirst + 7),
                      "Fail to wget url: " + repo.BaseUrl() + "/db1/v7000008/full.pkg");
  EXPECT_EQ(ReadFile(StatusPath("db1")), before);
  EXPECT_FALSE(fs::exists(volume + "/@tmp/data_update"));
}

// Databases each reserving 2^62 bytes, more than a configuration file can
// hold: the only way to reach the overflow guard of the reserved-space sum.
class HugeReservations : public ServiceConfig {
 public:
  using ServiceConfig::ServiceConfig;
  std::shared_ptr<DatabaseConfig> GetDatabaseConfig(const std::string& id) const override {
    class Huge : public DatabaseConfig {
     public:
      using DatabaseConfig::DatabaseConfig;
      unsigned long long GetMinReservedSpaceInbytes() const override { return 1ull << 62; }
    };
    return std::make_shared<Huge>(id, GetCurVolume(),
                                  std::make_shared<Config>(std::make_shared<IOUtils>()));
  }
};

// Volumes named by VESK_VOLUMES: chosen, ignored, given up and adopted.
TEST_F(ServiceFrontTest, ConfiguredVolumesAreChosenIgnoredGivenUpAndAdopted) {
  const std::string absent = sandbox / "not_there";
  const std::string other = sandbox / "volume2";
  fs::create_directories(other);
  WriteDefaultConfig(sandbox, repo, "", {{"db1"}, {"db2"}});
  const auto volume_lines = [&] { return log.Matching("volume_handler"); };
  {
    ScopedEnv none("VESK_VOLUMES", "");
    InitService();
  }
  {
    // Longer than a mount path can be: the platform fails with ENAMETOOLONG.
    ScopedEnv too_long("VESK_VOLUMES", ("/" + std::string(5000, 'v')).c_str());
    InitService();
  }
  EXPECT_EQ(volume_lines(),
            (std::vector<std::string>{
                "info: volume_handler.cpp:47 Failed to init volume: Cannot find suitable volume.",
                "info: volume_handler.cpp:47 Failed to init volume: Failed to enum all volumes: "
                "24"}));
  EXPECT_EQ(service.config->GetCurVolume(), "");

  ScopedEnv volumes("VESK_VOLUMES", (absent + ":" + volume + ":" + other).c_str());
  log.Clear();
  InitService();
  InitService();  // a volume is set: nothing more happens
  EXPECT_EQ(service.config->GetCurVolume(), volume);
  EXPECT_TRUE(fs::is_directory(volume + "/@database/autoupdate"));
  EXPECT_EQ(volume_lines(), std::vector<std::string>{"warning: volume_handler.cpp:45 Autoupdate "
                                                     "set the new volume at '" +
                                                     volume + "'."});

  log.Clear();
  service.volumes.MountVolumeEvent(other);
  service.volumes.UnmountVolumeEvent(other);
  EXPECT_EQ(
      volume_lines(),
      (std::vector<std::string>{
          "debug: volume_handler.cpp:102 Ignoring the uninteresting event of '" + other + "'.",
          "debug: volume_handler.cpp:94 Ignoring the uninteresting event of '" + other + "'."}));
  EXPECT_EQ(service.config->GetCurVolume(), volume);

  // Something left in the other volume's main directory stops the move.
  WriteFile(volume + "/@database/autoupdate/db1/a.txt", "installed");
  WriteFile(other + "/@database/autoupdate/left.txt", "left behind");
  log.Clear();
  service.volumes.UnmountVolumeEvent(volume);
  const auto lines = volume_lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].rfind("err: volume_handler.cpp:90 Autoupdate failed to handle unmount volume "
                           "event: ",
                           0),
            0u)
      << lines[1];
  EXPECT_EQ(service.config->GetCurVolume(), "");
  EXPECT_EQ(ReadFile(volume + "/@database/autoupdate/db1/a.txt"), "installed");

  // Mounted while none is set: a path that is no volume is reported, a
  // suitable volume is adopted without a line.
  log.Clear();
  service.volumes.MountVolumeEvent(absent);
  service.volumes.MountVolumeEvent(volume);
  EXPECT_EQ(volume_lines(), std::vector<std::string>{"err: volume_handler.cpp:109 Failed to get "
                                                     "volume info for '" +
                                                     absent + "'."});
  EXPECT_EQ(service.config->GetCurVolume(), volume);

  // The only other candidate does not exist: updates are turned off.
  ScopedEnv only_one("VESK_VOLUMES", (absent + ":" + volume).c_str());
  log.Clear();
  service.volumes.UnmountVolumeEvent(volume);
  EXPECT_EQ(volume_lines(), std::vector<std::string>{
                                "info: volume_handler.cpp:87 Autoupdate for DBs using volume is "
                                "going to be disabled normally: Cannot find suitable volume."});
  EXPECT_EQ(service.config->GetCurVolume(), "");
  EXPECT_EQ(ReadFile(volume + "/@database/autoupdate/db1/a.txt"), "installed");

  // Reserved space past the 64-bit range is refused, not wrapped.
  auto huge = std::make_shared<HugeReservations>(std::make_shared<Config>(service.io));
  const std::string overflow = "Overflow detection, this may be caused by invalid configurations.";
  try {
    VolumeHandler(huge).FindSuitableVolume("");
    ADD_FAILURE() << "the sum of 2 * 2^62 must overflow";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), overflow);
  }
  log.Clear();
  VolumeHandler(huge).InitVolume();
  EXPECT_EQ(volume_lines(),
            std::vector<std::string>{"err: volume_handler.cpp:50 Failed to init volume for the "
                                     "Autoupdate: " +
                                     overflow});
  EXPECT_EQ(service.config->GetCurVolume(), "");
}

}  // namespace
