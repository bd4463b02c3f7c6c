// CalculateStatus and CheckStatus over real files: digests, missing files,
// exact comparison, and the first failure alone being logged.
#include "dataupdate/updater.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <sstream>

#include "dataupdate/io_utils.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using vesk::test::LogCapture;
using vesk::test::TempDir;
using vesk::test::WriteFile;

namespace {

std::string Sha384Of(const std::string& content) {
  std::istringstream in(content);
  return GetSha384(in);
}

const std::string kNothingDigest = Sha384Of("");

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

std::string Upper(std::string text) {
  for (char& c : text)
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

TEST_F(StatusTest, CalculateRecordsTheDigestOfEachExistingFile) {
  EXPECT_EQ(CalculateStatus({"a.db", "sub/b.txt", "removed.db"}, root.path()), Recorded());
  EXPECT_TRUE(CalculateStatus({}, root.path()).empty());
  EXPECT_TRUE(log.Lines().empty()) << "a missing file is skipped silently";
}

TEST_F(StatusTest, RootWithTrailingSlashAndAbsoluteNamesAreJoinedBelowTheRoot) {
  EXPECT_EQ(CalculateStatus({"a.db"}, root.path() + "/"),
            (std::map<std::string, FileStatus>{{"a.db", {Sha384Of("alpha")}}}));
  EXPECT_EQ(CalculateStatus({"/sub/b.txt"}, root.path()),
            (std::map<std::string, FileStatus>{{"/sub/b.txt", {Sha384Of("beta")}}}));
}

TEST_F(StatusTest, UnchangedFilesCheckTrue) {
  EXPECT_TRUE(CheckStatus(Recorded(), root.path()));
  EXPECT_TRUE(CheckStatus({}, "/nonexistent"));
  WriteFile(root / "unlisted", "ignored");
  EXPECT_TRUE(CheckStatus(Recorded(), root.path()));
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(StatusTest, MissingFileIsGone) {
  boost::filesystem::remove(root / "sub/b.txt");
  EXPECT_FALSE(CheckStatus(Recorded(), root.path()));
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"err: updater.cpp:49 File " +
                                                   (root / "sub/b.txt") + " is gone"}));
}

TEST_F(StatusTest, ChangedFileFailsTheDigestCheck) {
  WriteFile(root / "a.db", "alphA");
  EXPECT_FALSE(CheckStatus(Recorded(), root.path()));
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"err: updater.cpp:56 File " + (root / "a.db") +
                                                   " digest check fail"}));
}

TEST_F(StatusTest, UpperCaseDigestNeverMatches) {
  auto recorded = Recorded();
  recorded["a.db"].sha384_digest = Upper(recorded["a.db"].sha384_digest);
  EXPECT_FALSE(CheckStatus(recorded, root.path()));
  EXPECT_EQ(log.Matching("digest check fail").size(), 1u);
}

TEST_F(StatusTest, DirectoryInPlaceOfAFileIsPresentButDigestsAsNothing) {
  boost::filesystem::remove(root / "a.db");
  ASSERT_EQ(mkdir((root / "a.db").c_str(), 0755), 0);
  EXPECT_EQ(CalculateStatus({"a.db"}, root.path()),
            (std::map<std::string, FileStatus>{{"a.db", {kNothingDigest}}}));
  EXPECT_FALSE(CheckStatus(Recorded(), root.path()));
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"err: updater.cpp:56 File " + (root / "a.db") +
                                                   " digest check fail"}));
}

TEST_F(StatusTest, OnlyTheFirstBadFileInNameOrderIsLogged) {
  WriteFile(root / "a.db", "changed");
  boost::filesystem::remove(root / "sub/b.txt");
  EXPECT_FALSE(CheckStatus(Recorded(), root.path()));
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"err: updater.cpp:56 File " + (root / "a.db") +
                                                   " digest check fail"}));
}
