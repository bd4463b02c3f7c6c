#include "dataupdate/io_utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>

#include "dataupdate/error.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

class IOUtilsTest : public ::testing::Test {
 protected:
  IOUtils io;
  TempDir dir;
};

}  // namespace

TEST_F(IOUtilsTest, ReadJsonDistinguishesMissingUnreadableAndUndecodable) {
  EXPECT_UPDATE_ERROR(io.ReadJson(dir / "none.json"), "File not exist: " + (dir / "none.json"));
  for (const char* bad : {"", "{\"a\": "}) {
    WriteFile(dir / "bad.json", bad);
    EXPECT_UPDATE_ERROR(io.ReadJson(dir / "bad.json"), "Fail to decode: " + (dir / "bad.json"));
  }
  EXPECT_UPDATE_ERROR(io.ReadJson(dir.path()), "Fail to read: " + dir.path());
  WriteFile(dir / "ok.json", "// a comment\n{\"a\": {\"b\": 1}}");
  EXPECT_EQ(io.ReadJson(dir / "ok.json")["a"]["b"].asInt(), 1);
}

TEST_F(IOUtilsTest, WriteJsonIndentsWithTabsKeepsTheModeAndWritesThroughALink) {
  Json::Value value;
  value["s"]["k"] = "v";
  const mode_t mask = umask(077);
  io.WriteJson(dir / "a/b/c.json", value);
  EXPECT_EQ(ReadFile(dir / "a/b/c.json"), "{\n\t\"s\" : \n\t{\n\t\t\"k\" : \"v\"\n\t}\n}\n");
  struct stat st;
  ASSERT_EQ(chmod((dir / "a/b/c.json").c_str(), 0640), 0);
  io.WriteJson(dir / "a/b/c.json", value);
  ASSERT_EQ(stat((dir / "a/b/c.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u) << "the replaced file's mode stays";
  umask(mask);

  WriteFile(dir / "real/target.json", "{}");
  ASSERT_EQ(symlink("real/target.json", (dir / "link.json").c_str()), 0);
  io.WriteJson(dir / "link.json", value);
  ASSERT_EQ(lstat((dir / "link.json").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(io.ReadJson(dir / "real/target.json"), value);

  WriteFile(dir / "plain", "x");
  EXPECT_UPDATE_ERROR(io.WriteJson(dir / "plain/sub/f.json", value),
                      "Fail to create parent folder: " + (dir / "plain/sub/f.json"));
}

TEST_F(IOUtilsTest, CopyFileReplacesTheTargetCopiesLinksAsLinksAndNamesItsFailures) {
  WriteFile(dir / "out/old", "old");
  // Larger than one block of the fallback loop, odd-sized, without repeats.
  const std::string big = Pseudorandom(1024 * 1024 + 7, 3);
  WriteFile(dir / "big", big);
  io.CopyFile(dir / "big", dir / "out/old");
  EXPECT_TRUE(ReadFile(dir / "out/old") == big);

  ASSERT_EQ(symlink("big", (dir / "link").c_str()), 0);
  io.CopyFile(dir / "link", dir / "link2");
  struct stat st;
  ASSERT_EQ(lstat((dir / "link2").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));

  try {
    io.CopyFile(dir / "none", dir / "x");
    ADD_FAILURE() << "no error";
  } catch (const UpdateError& e) {  // the file system's reason follows
    EXPECT_EQ(std::string(e.what()).rfind("Fail to copy from " + (dir / "none") + " to ", 0), 0u);
  }
}

TEST(Sha384, LowerCaseHexAsTheCoreutilsToolGivesOverAnySize) {
  EXPECT_EQ(FlatFileName("/lead.x/y.db"), "_lead_x_y_db");
  TempDir dir;
  for (const std::string& content : {std::string("abc"), Pseudorandom(300000, 5)}) {
    WriteFile(dir / "f", content);  // 300000 bytes: more than one read block
    std::fstream file(dir / "f", std::ios::in | std::ios::out);
    ASSERT_EQ(std::system(("sha384sum " + (dir / "f") + " > " + (dir / "sum")).c_str()), 0);
    EXPECT_EQ(GetSha384(file), ReadFile(dir / "sum").substr(0, 96));
  }
}
