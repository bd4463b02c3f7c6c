// The installed files' status: CalculateStatus and CheckStatus over real files
// (digests, missing files, exact comparison, the first failure alone logged),
// and the quick reading of a status file's installed version, which gives what
// the full reading (JSON reader + DatabaseStatus::FromJson) gives, or declines.
#include "status_scan.h"

#include <fcntl.h>
#include <json/reader.h>

#include <boost/filesystem.hpp>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "dataupdate/updater.h"
#include "test_support.h"
#include "unique_fd.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

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
  DatabaseStatus status{version, 1750000000, {}};
  for (int i = 0; i < files; ++i)
    status.file_statuses["dir/file" + std::to_string(i) + ".db"] =
        FileStatus{std::string(96, "0123456789abcdef"[i % 16])};
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
  const std::string c(1, alphabet[random() % alphabet.size()]);
  text.replace(at, random() % 2, random() % 3 == 0 ? "" : c);  // replaced, inserted or removed
}

}  // namespace

// Files are digested on several threads, largest first: each digest must land
// on its own name, and a check must stop at the first bad name in name order
// even when a later, larger file was digested and failed first.
TEST(Status, CalculateDigestsEachExistingFileAndCheckLogsTheFirstBadOneInNameOrder) {
  TempDir root;
  LogCapture log;
  std::map<std::string, FileStatus> many;
  std::set<std::string> names = {"many/removed"};
  for (int i = 0; i < 40; ++i) {
    const std::string name = "many/f" + std::to_string(100 + i);
    const size_t pages = i == 39 ? 64 : (i * 7919) % 40;  // sizes out of name order
    const std::string content(pages * 4096 + i, static_cast<char>('a' + i % 26));
    WriteFile(root / name, content);
    std::istringstream in(content);
    many[name] = FileStatus{GetSha384(in)};
    names.insert(name);
  }
  EXPECT_EQ(CalculateStatus(names, root.path() + "/"), many);
  EXPECT_EQ(CalculateStatus({"/many/f100"}, root.path()).at("/many/f100"), many["many/f100"]);
  EXPECT_TRUE(CheckStatus(many, root.path()));
  EXPECT_TRUE(log.Lines().empty()) << "a missing file is skipped silently";

  auto upper = many;  // digests are compared exactly
  for (char& c : upper["many/f101"].sha384_digest)
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  EXPECT_FALSE(CheckStatus(upper, root.path()));
  WriteFile(root / "many/f139", "changed");  // the largest, last in name order
  boost::filesystem::remove(root / "many/f101");
  EXPECT_FALSE(CheckStatus(many, root.path()));
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{
                "err: updater.cpp:56 File " + (root / "many/f101") + " digest check fail",
                "err: updater.cpp:49 File " + (root / "many/f101") + " is gone"}));
}

// Bytes changed, removed or added anywhere in a written status file: whenever
// the quick reading (of the whole text, or through its window) accepts the
// result, the full reading gives the same.
TEST(StatusScan, WrittenFilesAreReadQuicklyAndDamagedOnesNeverReadDifferently) {
  TempDir dir;
  const auto windowed = [&dir](const std::string& text) {
    WriteFile(dir / "version.json", text);
    UniqueFd fd(open((dir / "version.json").c_str(), O_RDONLY | O_CLOEXEC));
    return ScanWrittenStatus(fd.get());
  };
  for (int files : {0, 1, 3, 2000}) {  // 2000 files: larger than the reading window
    const std::string text = Written(Recorded(20250601, files));
    EXPECT_EQ(Quick(text), std::optional<int>(20250601)) << files << " files";
    EXPECT_EQ(FullReading(text), std::optional<int>(20250601));
    EXPECT_EQ(windowed(text), files == 0 ? std::nullopt : std::optional<int>(20250601));
  }
  // What the full reading refuses, or reads otherwise than it looks.
  for (const char* text : {R"({"data_version":"12"})", R"({"data_version":12,"last_fetch_time":5})",

                           R"({"data_version":"12","last_fetch_time":5,"data_version":"13"})",
                           R"({"last_fetch_time":5,"data_version":"12"})",
                           R"({"data_version":"1\u0032","last_fetch_time":5})"})
    EXPECT_EQ(Quick(text), std::nullopt) << text;
  EXPECT_EQ(Quick(R"( {"data_version" : "12", "file_statuses" : {"a" : {"sha384_digest" : "x"}},
                      "last_fetch_time" : -5, "more" : {"deep" : {"x" : 1}}} )"),
            std::optional<int>(12));
  std::mt19937 random(20250601);
  for (const auto& [files, rounds] : {std::pair{3, 20000}, {2000, 300}}) {
    const std::string original = Written(Recorded(20250601, files));
    int accepted = 0;
    for (int round = 0; round < rounds; ++round) {
      std::string text = original;
      // Near the start, the window's edges and the end, where the layout has
      // its fixed parts, as well as anywhere.
      const size_t places[] = {random() % 120, (64 * 1024 - 60 + random() % 120) % text.size(),
                               text.size() - 1 - random() % 120, random() % text.size()};
      Damage(text, places[random() % 4], random);
      const std::optional<int> quick = Quick(text);
      ASSERT_TRUE(!quick || quick == FullReading(text)) << text;
      const std::optional<int> through_window = files > 3 ? windowed(text) : std::nullopt;
      ASSERT_TRUE(!through_window || through_window == quick);
      accepted += quick.has_value();
    }
    EXPECT_GT(accepted, rounds / 200) << "harmless edits (spaces, digests' digits) are still read";
  }
}
