// The installed files' status: CalculateStatus and CheckStatus over real files
// (digests, missing files, exact comparison, the first failure alone logged),
// and the quick reading of a status file's installed version, which gives what
// the full reading (JSON reader + DatabaseStatus::FromJson) gives, or declines;
// it never disagrees, whatever the bytes.
#include "status_scan.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "dataupdate/update.h"
#include "dataupdate/updater.h"
#include "forked_child.h"
#include "test_support.h"
#include "unique_fd.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

std::string Sha384Of(const std::string& content) {
  std::istringstream in(content);
  return GetSha384(in);
}

class StatusTest : public ::testing::Test {
 protected:
  StatusTest() {
    WriteFile(root / "a.db", "alpha");
    WriteFile(root / "sub/b.txt", "beta");
  }
  std::map<std::string, FileStatus> Recorded() const {
    return {{"a.db", {Sha384Of("alpha")}}, {"sub/b.txt", {Sha384Of("beta")}}};
  }

  TempDir root;
  LogCapture log;
};

// The full reading: the version, or nullopt when it fails in any way.
std::optional<int> FullReading(const std::string& text) {
  try {
    Json::Value root;
    if (!Json::Reader().parse(text, root, true))
      return std::nullopt;
    return DatabaseStatus::FromJson(root).data_version;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<int> Quick(const std::string& text) {
  return ScanStatusVersion(text.data(), text.size());
}

DatabaseStatus Recorded(int version, int files) {
  DatabaseStatus status;
  status.data_version = version;
  status.last_fetch_time = 1750000000;
  for (int i = 0; i < files; ++i) {
    const std::string digest(96, "0123456789abcdef"[i % 16]);
    status.file_statuses["dir/file" + std::to_string(i) + ".db"] = FileStatus{digest};
  }
  return status;
}

// The status file as IOUtils::WriteJson writes it.
std::string Written(const DatabaseStatus& status) {
  TempDir dir;
  IOUtils().WriteJson(dir / "version.json", DatabaseStatus::ToJson(status));
  return ReadFile(dir / "version.json");
}

// One byte at `at` replaced, removed or a byte inserted there, drawn from the
// characters that shape JSON and the digits and names a status file holds.
void Damage(std::string& text, size_t at, std::mt19937& random) {
  static const std::string alphabet = "{}[]:,\"\\ \t\n/-+.eE0123456789abx";
  const char c = alphabet[random() % alphabet.size()];
  switch (random() % 3) {
    case 0:
      text[at] = c;
      break;
    case 1:
      text.erase(at, 1);
      break;
    default:
      text.insert(at, 1, c);
  }
}

// The installed-version reading of the status file in a sandbox root.
class InfoGetterTest : public ::testing::Test {
 protected:
  Sandbox sandbox;
  std::shared_ptr<IOUtils> io = std::make_shared<IOUtils>();
  std::shared_ptr<ServiceConfig> config =
      std::make_shared<ServiceConfig>(std::make_shared<Config>(io));
  const InfoGetter info{io, config};
  const std::string path = sandbox.Path("/var/lib/data_update/db/version.json");
};

}  // namespace

TEST_F(StatusTest, CalculateRecordsTheDigestOfEachExistingFileBelowTheRoot) {
  EXPECT_EQ(CalculateStatus({"a.db", "sub/b.txt", "removed.db"}, root.path()), Recorded());
  EXPECT_TRUE(CalculateStatus({}, root.path()).empty());
  EXPECT_EQ(CalculateStatus({"a.db"}, root.path() + "/"),
            (std::map<std::string, FileStatus>{{"a.db", {Sha384Of("alpha")}}}));
  EXPECT_EQ(CalculateStatus({"/sub/b.txt"}, root.path()),
            (std::map<std::string, FileStatus>{{"/sub/b.txt", {Sha384Of("beta")}}}));
  // A directory in place of a file is present but digests as nothing.
  boost::filesystem::remove(root / "a.db");
  ASSERT_EQ(mkdir((root / "a.db").c_str(), 0755), 0);
  EXPECT_EQ(CalculateStatus({"a.db"}, root.path()),
            (std::map<std::string, FileStatus>{{"a.db", {Sha384Of("")}}}));
  EXPECT_TRUE(log.Lines().empty()) << "a missing file is skipped silently";

  // Files digested on several threads, largest first: each digest lands on
  // its own name, none is left out, and a check stops at the first bad name
  // even when a later, larger file was digested and failed first.
  std::map<std::string, FileStatus> many;
  for (int i = 0; i < 40; ++i) {
    const std::string name = "many/f" + std::to_string(100 + i);
    const size_t pages = i == 39 ? 64 : (i * 7919) % 40;  // sizes out of name order
    const std::string content(pages * 4096 + i, static_cast<char>('a' + i % 26));
    WriteFile(root / name, content);
    many[name] = FileStatus{Sha384Of(content)};
  }
  std::set<std::string> names;
  for (const auto& entry : many)
    names.insert(entry.first);
  names.insert("many/removed");
  EXPECT_EQ(CalculateStatus(names, root.path()), many);
  EXPECT_TRUE(CheckStatus(many, root.path()));
  WriteFile(root / "many/f139", "changed");  // the largest, last in name order
  WriteFile(root / "many/f105", "changed");
  EXPECT_FALSE(CheckStatus(many, root.path()));
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"err: updater.cpp:56 File " +
                                                  (root / "many/f105") + " digest check fail"});
}

TEST_F(StatusTest, CheckFailsOnTheFirstBadFileInNameOrderAndLogsOnlyIt) {
  const std::string gone = "err: updater.cpp:49 File " + (root / "sub/b.txt") + " is gone";
  const std::string changed = "err: updater.cpp:56 File " + (root / "a.db") + " digest check fail";
  struct Case {
    const char* what;
    std::function<void(std::map<std::string, FileStatus>&)> damage;
    std::vector<std::string> lines;
  };
  const std::vector<Case> cases{
      {"unchanged, an unlisted file beside", [&](auto&) { WriteFile(root / "unlisted", "x"); }, {}},
      {"missing", [&](auto&) { boost::filesystem::remove(root / "sub/b.txt"); }, {gone}},
      {"changed", [&](auto&) { WriteFile(root / "a.db", "alphA"); }, {changed}},
      {"upper-case digest recorded",
       [](auto& recorded) {
         std::string& digest = recorded["a.db"].sha384_digest;
         for (char& c : digest)
           c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
       },
       {changed}},
      {"directory in place of the file",
       [&](auto&) {
         boost::filesystem::remove(root / "a.db");
         boost::filesystem::create_directory(root / "a.db");
       },
       {changed}},
      {"changed and missing",
       [&](auto&) {
         WriteFile(root / "a.db", "changed");
         boost::filesystem::remove(root / "sub/b.txt");
       },
       {changed}},
  };
  for (const Case& c : cases) {
    boost::filesystem::remove_all(root / "a.db");
    WriteFile(root / "a.db", "alpha");
    WriteFile(root / "sub/b.txt", "beta");
    log.Clear();
    auto recorded = Recorded();
    c.damage(recorded);
    EXPECT_EQ(CheckStatus(recorded, root.path()), c.lines.empty()) << c.what;
    EXPECT_EQ(log.Lines(), c.lines) << c.what;
  }
  EXPECT_TRUE(CheckStatus({}, "/nonexistent"));
}

TEST(StatusScan, WhatTheLibraryWritesIsReadQuickly) {
  for (int files : {0, 1, 3, 500}) {
    for (int version : {0, 7, 20250601, 999999999}) {
      const std::string text = Written(Recorded(version, files));
      EXPECT_EQ(Quick(text), std::optional<int>(version)) << files << " files:\n" << text;
      EXPECT_EQ(FullReading(text), std::optional<int>(version));
    }
  }
}

TEST(StatusScan, OtherFormsOfTheSameDocumentAgreeOrDecline) {
  const std::vector<std::string> agree = {
      R"({"data_version":"12","last_fetch_time":5})",
      R"( {"data_version" : "12", "file_statuses" : {"a" : {"sha384_digest" : "x"}},
           "last_fetch_time" : -5, "more" : {"deep" : {"x" : 1}}} )",
      R"({"data_version":"012","file_statuses":{},"last_fetch_time":2147483647})",
      R"({"data_version":"-1","file_statuses":{"a":{"sha384_digest":"d","size":3}},"last_fetch_time":0})",
  };
  for (const std::string& text : agree) {
    ASSERT_TRUE(FullReading(text)) << text;
    EXPECT_EQ(Quick(text), FullReading(text)) << text;
  }
  const std::vector<std::string> decline = {
      "",
      "[]",
      R"({"data_version":"12"})",                                          // no time stamp
      R"({"last_fetch_time":5})",                                          // no version
      R"({"data_version":12,"last_fetch_time":5})",                        // a number
      R"({"data_version":"12x","last_fetch_time":5})",                     // not digits
      R"({"data_version":"1234567890","last_fetch_time":5})",              // beyond 9 digits
      R"({"data_version":"12","last_fetch_time":2147483648})",             // beyond 32 bits
      R"({"data_version":"12","last_fetch_time":5.0})",                    // not an integer token
      R"({"data_version":"12","last_fetch_time":5,"data_version":"13"})",  // repeated
      R"({"last_fetch_time":5,"data_version":"12"})",                      // not ascending
      R"({"data_version":"1\u0032","last_fetch_time":5})",                 // an escape
      R"({"data_version":"12","last_fetch_time":5} trailing)",
      R"({"data_version":"12",/* note */"last_fetch_time":5})",
      R"({"data_version":"12","file_statuses":{"a":{}},"last_fetch_time":5})",
      R"({"data_version":"12","file_statuses":{"a":"d"},"last_fetch_time":5})",
      R"({"data_version":"12","file_statuses":[],"last_fetch_time":5})",
      R"({"data_version":"12","file_statuses":{"a":{"sha384_digest":1}},"last_fetch_time":5})",
      R"({"data_version":"12","last_fetch_time":5,"x":true})",
      R"({"data_version":"12","last_fetch_time":5,"x":null})",
      R"({"data_version":"12","last_fetch_time":5,)",
      R"({"data_version":"12","last_fetch_time":5,})",
  };
  for (const std::string& text : decline)
    EXPECT_EQ(Quick(text), std::nullopt) << text;
}

// Bytes changed, removed or added anywhere in a written status file: whenever
// the quick reading accepts the result, the full reading gives the same.
TEST(StatusScan, DamagedFilesNeverReadDifferently) {
  const std::string original = Written(Recorded(20250601, 3));
  std::mt19937 random(20250601);
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = original;
    for (int edit = 0, edits = 1 + static_cast<int>(random() % 3); edit < edits; ++edit)
      Damage(text, random() % text.size(), random);
    const std::optional<int> quick = Quick(text);
    if (!quick)
      continue;
    ++accepted;
    ASSERT_EQ(quick, FullReading(text)) << text;
  }
  EXPECT_GT(accepted, 100) << "harmless edits (spaces, digits of the digests) are still read";
}

// A file larger than the reading window, read through it: the written layout
// is read, and no damage makes it read otherwise than the whole-text scan.
TEST(StatusScan, TheWindowedReadingAgreesWithTheWholeText) {
  TempDir dir;
  const std::string path = dir / "version.json";
  const auto windowed = [&path](const std::string& text) {
    WriteFile(path, text);
    vesk::dataupdate::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return ScanWrittenStatus(fd.get());
  };
  const std::string original = Written(Recorded(20250601, 2000));  // about 300 KB
  ASSERT_GT(original.size(), 4u * 64 * 1024);
  EXPECT_EQ(windowed(original), std::optional<int>(20250601));
  EXPECT_EQ(windowed(Written(Recorded(5, 1))), std::optional<int>(5));
  EXPECT_EQ(windowed(Written(Recorded(5, 0))), std::nullopt) << "no files: another layout";

  std::mt19937 random(7);
  int read = 0;
  for (int round = 0; round < 300; ++round) {
    std::string text = original;
    // Edits near the start, the window's edges and the end, where the layout
    // has its fixed parts, as well as anywhere.
    const size_t places[] = {random() % 120, 64 * 1024 - 60 + random() % 120,
                             text.size() - 1 - random() % 120, random() % text.size()};
    const size_t at = places[random() % 4];
    Damage(text, at, random);
    const std::optional<int> version = windowed(text);
    if (!version)
      continue;
    ++read;
    ASSERT_EQ(version, Quick(text)) << "edit at " << at;
    ASSERT_EQ(version, FullReading(text)) << "edit at " << at;
  }
  EXPECT_GT(read, 10);
}

TEST_F(InfoGetterTest, ReadsQuicklyOnlyWhatItWroteItself) {
  LogCapture log;
  EXPECT_EQ(info.QuickInstalledVersion("db"), std::nullopt) << "no status file";
  info.SetDatabaseStatus("db", Recorded(20250601, 2));
  EXPECT_EQ(info.QuickInstalledVersion("db"), std::optional<int>(20250601));
  EXPECT_EQ(info.GetDatabaseStatus("db").data_version, 20250601);

  WriteFile(path, R"({"data_version":"5","last_fetch_time":1,"data_version":"6"})");
  EXPECT_EQ(info.QuickInstalledVersion("db"), std::nullopt) << "left to the full reading";
  EXPECT_TRUE(log.Lines().empty()) << "the quick reading logs nothing";

  // A substitute IOUtils may read its status from elsewhere: it is asked, as ever.
  struct Substitute : IOUtils {};
  const InfoGetter substituted(std::make_shared<Substitute>(), config);
  info.SetDatabaseStatus("db", Recorded(20250602, 2));
  EXPECT_EQ(substituted.QuickInstalledVersion("db"), std::nullopt);
  EXPECT_EQ(substituted.GetDatabaseStatus("db").data_version, 20250602);
}

// The version of a settled status file, and a settled document read through
// IOUtils::ReadJson, are kept between two readings in one process, and never
// outlive a change of the file, even one of the same size.
TEST_F(InfoGetterTest, AKeptVersionGivesWayToAnyChange) {
  info.SetDatabaseStatus("db", Recorded(20250601, 3));
  // Settled only once its change time, which no test can set back, is old enough.
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  EXPECT_EQ(info.QuickInstalledVersion("db"), std::optional<int>(20250601));
  EXPECT_EQ(info.QuickInstalledVersion("db"), std::optional<int>(20250601));
  EXPECT_EQ(io->ReadJson(path)["data_version"].asString(), "20250601");  // a kept document

  std::string text = ReadFile(path);
  text.replace(text.find("20250601"), 8, "20250602");
  WriteFile(path, text);  // in place, same size
  EXPECT_EQ(info.QuickInstalledVersion("db"), std::optional<int>(20250602));
  EXPECT_EQ(io->ReadJson(path)["data_version"].asString(), "20250602");
  WriteFile(path, "{}");
  EXPECT_EQ(info.QuickInstalledVersion("db"), std::nullopt);
  EXPECT_EQ(info.GetDatabaseStatus("db").data_version, -1);
}
