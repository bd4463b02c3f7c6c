// CalculateStatus and CheckStatus over real files: digests, missing files,
// exact comparison, and the first failure alone being logged.
#include "dataupdate/updater.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <functional>
#include <sstream>

#include "dataupdate/io_utils.h"
#include "test_support.h"

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
