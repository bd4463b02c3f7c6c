#include "dataupdate/io_utils.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "dataupdate/error.h"
#include "forked_child.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

const char kEmptySha384[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b9"
    "5b";
const char kAbcSha384[] =
    "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825"
    "a7";

class IOUtilsTest : public ::testing::Test {
 protected:
  IOUtils io;
  TempDir dir;
};

std::vector<std::string> Walk(const IOUtils& io, const std::string& dir, bool recursive) {
  std::vector<std::string> seen;
  io.IterateDirectory(
      dir, [&](const std::string& p) { seen.push_back(p); }, recursive);
  return seen;
}

}  // namespace

TEST_F(IOUtilsTest, GetSizeCountsRegularFilesOnly) {
  EXPECT_EQ(io.GetSize(dir / "missing"), 0u);
  EXPECT_EQ(io.GetSize(dir.path()), 0u);
  WriteFile(dir / "ten", std::string(10, 'x'));
  WriteFile(dir / "sub/five", std::string(5, 'y'));
  ASSERT_EQ(symlink((dir / "ten").c_str(), (dir / "link").c_str()), 0);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  // The link resolves to a regular file and counts; the fifo does not.
  EXPECT_EQ(io.GetSize(dir.path()), 25u);
  EXPECT_EQ(io.GetSize(dir / "ten"), 10u);
  EXPECT_EQ(io.GetSize(dir / "fifo"), 0u);
}

TEST_F(IOUtilsTest, GetFsSizeNeedsAnExistingDirectory) {
  WriteFile(dir / "f", "x");
  EXPECT_UPDATE_ERROR(io.GetFsSize(dir / "f"), "Invalid filesystem to testing space");
  EXPECT_UPDATE_ERROR(io.GetFsSize(dir / "none"), "Invalid filesystem to testing space");
  auto [available, capacity] = io.GetFsSize(dir.path());
  EXPECT_GT(capacity, 0u);
  EXPECT_GE(available, 0);
  EXPECT_LE(static_cast<std::uint64_t>(available), capacity);
}

TEST_F(IOUtilsTest, ReadJsonDistinguishesMissingUnreadableAndUndecodable) {
  try {
    io.ReadJson(dir / "none.json");
    FAIL() << "no error";
  } catch (const UpdateError& e) {
    EXPECT_EQ(std::string(e.what()), "File not exist: " + (dir / "none.json"));
    EXPECT_EQ(e.code(), UpdateError::kFileNotExist);
  }
  for (const char* bad : {"", "{\"a\": "}) {
    WriteFile(dir / "bad.json", bad);
    EXPECT_UPDATE_ERROR(io.ReadJson(dir / "bad.json"), "Fail to decode: " + (dir / "bad.json"));
  }
  EXPECT_UPDATE_ERROR(io.ReadJson(dir.path()), "Fail to read: " + dir.path());
  if (geteuid() != 0) {  // root reads files whatever their mode
    WriteFile(dir / "secret.json", "{}");
    chmod((dir / "secret.json").c_str(), 0);
    EXPECT_UPDATE_ERROR(io.ReadJson(dir / "secret.json"), "Fail to read: " + (dir / "secret.json"));
  }
  WriteFile(dir / "nested.json", std::string(900, '[') + std::string(900, ']'));
  EXPECT_TRUE(io.ReadJson(dir / "nested.json").isArray());
  WriteFile(dir / "ok.json", "// a comment\n{\"a\": {\"b\": 1}}");
  EXPECT_EQ(io.ReadJson(dir / "ok.json")["a"]["b"].asInt(), 1);
}

TEST_F(IOUtilsTest, WriteJsonCreatesParentsTruncatesAndIndentsWithTabs) {
  const std::string path = dir / "a/b/c.json";
  Json::Value value;
  value["s"]["k"] = "v";
  io.WriteJson(path, value);
  EXPECT_EQ(ReadFile(path), "{\n\t\"s\" : \n\t{\n\t\t\"k\" : \"v\"\n\t}\n}\n");

  Json::Value small;
  small["x"] = 1;
  io.WriteJson(path, small);
  EXPECT_EQ(io.ReadJson(path), small);

  WriteFile(dir / "plain", "x");
  EXPECT_UPDATE_ERROR(io.WriteJson(dir / "plain/sub/f.json", small),
                      "Fail to create parent folder: " + (dir / "plain/sub/f.json"));
  EXPECT_UPDATE_ERROR(io.WriteJson(dir.path(), small), "Fail to write: " + dir.path());
}

// Names in `dir` other than `keep`: what a write left behind.
std::vector<std::string> Others(const std::string& dir, const std::string& keep) {
  std::vector<std::string> names;
  for (boost::filesystem::directory_iterator it(dir), end; it != end; ++it) {
    if (it->path().filename() != keep)
      names.push_back(it->path().filename().string());
  }
  return names;
}

// A write that fails part-way (here the file-size limit, as a full disk would)
// is reported, and the document that was there stays whole. Before the write
// went through a temporary file, the target was truncated and the error ignored.
TEST_F(IOUtilsTest, WriteJsonThatFailsPartWayReportsItAndKeepsTheOldDocument) {
  const std::string path = dir / "conf/data_update.conf";
  Json::Value old;
  old["config"]["cur_volume"] = "/volume1";
  io.WriteJson(path, old);
  const std::string before = ReadFile(path);
  const std::string findings = dir / "findings";

  vesk::test::ForkedChild child([&](const vesk::test::ForkedChild::Channel&) {
    signal(SIGXFSZ, SIG_IGN);  // an oversized write fails with EFBIG instead
    const rlimit limit{4096, 4096};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
      return 2;
    try {
      old["config"]["note"] = std::string(64 << 10, 'x');
      io.WriteJson(path, old);
      return 1;
    } catch (const UpdateError& e) {
      WriteFile(findings, e.what());
      return 0;
    }
  });
  EXPECT_EQ(child.Wait(), 0) << "1: the failed write was not reported";
  if (Exists(findings)) {
    EXPECT_EQ(ReadFile(findings), "Fail to write: " + path);
  }
  EXPECT_EQ(ReadFile(path), before);
  EXPECT_EQ(Others(dir / "conf", "data_update.conf"), std::vector<std::string>{});
}

// The rewritten file keeps the permissions of the one it replaces, a new one
// gets the usual 0666 less the umask, and a link is written through.
TEST_F(IOUtilsTest, WriteJsonKeepsTheModeAndWritesThroughALink) {
  Json::Value value;
  value["k"] = "v";
  const mode_t mask = umask(022);
  io.WriteJson(dir / "new.json", value);
  struct stat st;
  ASSERT_EQ(stat((dir / "new.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);

  ASSERT_EQ(chmod((dir / "new.json").c_str(), 0640), 0);
  io.WriteJson(dir / "new.json", value);
  ASSERT_EQ(stat((dir / "new.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  umask(mask);

  WriteFile(dir / "real/target.json", "{}");
  ASSERT_EQ(symlink("real/target.json", (dir / "link.json").c_str()), 0);
  io.WriteJson(dir / "link.json", value);
  ASSERT_EQ(lstat((dir / "link.json").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(io.ReadJson(dir / "real/target.json"), value);
}

TEST_F(IOUtilsTest, FileCreateOverIsStrictlyOlderThan) {
  WriteFile(dir / "f", "x");
  EXPECT_FALSE(io.FileCreateOver(dir / "f", 3600));
  SetAge(dir / "f", 7200);
  EXPECT_TRUE(io.FileCreateOver(dir / "f", 3600));
  SetAge(dir / "f", -600);  // in the future: never over
  EXPECT_FALSE(io.FileCreateOver(dir / "f", 0));
  EXPECT_UPDATE_ERROR(io.FileCreateOver(dir / "none", 1),
                      "Failed to get attribute of " + (dir / "none") + ", errno=2");
}

TEST_F(IOUtilsTest, CopyFileReplacesTargetAndCreatesParents) {
  WriteFile(dir / "src", "new content");
  WriteFile(dir / "out/old", "old");
  io.CopyFile(dir / "src", dir / "out/old");
  EXPECT_EQ(ReadFile(dir / "out/old"), "new content");
  io.CopyFile(dir / "src", dir / "deep/er/copy");
  EXPECT_EQ(ReadFile(dir / "deep/er/copy"), "new content");
  // Larger than one block of the fallback loop, odd-sized, without repeats:
  // the kernel's copy must neither drop nor repeat a range.
  const std::string big = Pseudorandom(1024 * 1024 + 7, 3);
  WriteFile(dir / "big", big);
  io.CopyFile(dir / "big", dir / "big.copy");
  EXPECT_TRUE(ReadFile(dir / "big.copy") == big);
  WriteFile(dir / "empty-src", "");
  io.CopyFile(dir / "empty-src", dir / "empty-copy");
  EXPECT_EQ(ReadFile(dir / "empty-copy"), "");

  ASSERT_EQ(symlink("src", (dir / "link").c_str()), 0);
  io.CopyFile(dir / "link", dir / "link2");  // a link is copied as a link
  struct stat st;
  ASSERT_EQ(lstat((dir / "link2").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));

  // The file system's reason follows the documented start.
  auto error_of = [&](const std::string& from, const std::string& to) {
    try {
      io.CopyFile(from, to);
    } catch (const UpdateError& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  WriteFile(dir / "full/x", "x");  // a non-empty directory cannot be replaced
  for (const auto& [from, to] : {std::pair{dir / "src", dir / "full"}, {dir / "none", dir / "x"}}) {
    const std::string start = "Fail to copy from " + from + " to " + to + ": ";
    EXPECT_EQ(error_of(from, to).rfind(start, 0), 0u) << error_of(from, to);
  }
}

TEST_F(IOUtilsTest, VeskMkdirAndRmRfMakeAndRemoveTrees) {
  io.VeskMkdir(dir / "a/b/c");
  io.VeskMkdir(dir / "a/b/c");
  EXPECT_TRUE(boost::filesystem::is_directory(dir / "a/b/c"));
  WriteFile(dir / "file", "x");
  EXPECT_UPDATE_ERROR(io.VeskMkdir(dir / "file/sub"), "Fail to create dir " + (dir / "file/sub"));
  WriteFile(dir / "a/b/c/d", "x");
  for (const char* gone : {"a", "file", "none"}) {
    io.RmRf(dir / gone);
    EXPECT_FALSE(Exists(dir / gone));
  }
}

TEST_F(IOUtilsTest, IterateDirectoryReportsContentsBeforeTheirDirectory) {
  WriteFile(dir / "d/f", "x");
  WriteFile(dir / "d/s/inner", "y");
  auto flat = Walk(io, dir / "d", false);
  std::sort(flat.begin(), flat.end());
  EXPECT_EQ(flat, (std::vector<std::string>{dir / "d/f", dir / "d/s"}));

  auto deep = Walk(io, dir / "d", true);
  ASSERT_EQ(deep.size(), 3u);
  auto pos = [&](const std::string& p) {
    return std::find(deep.begin(), deep.end(), p) - deep.begin();
  };
  EXPECT_LT(pos(dir / "d/s/inner"), pos(dir / "d/s"));
  EXPECT_LT(pos(dir / "d/f"), 3);

  auto slash = Walk(io, dir / "d/", true);
  std::sort(slash.begin(), slash.end());
  std::sort(deep.begin(), deep.end());
  EXPECT_EQ(slash, deep);

  EXPECT_UPDATE_ERROR(Walk(io, dir / "none", false), "failed to read file stat: " + (dir / "none"));
  EXPECT_UPDATE_ERROR(Walk(io, dir / "d/f", false), "not a directory: " + (dir / "d/f"));
}

TEST(Sha384, KnownDigestsInLowerCaseHexOverStreamsOfAnySize) {
  std::istringstream empty, abc("abc");
  EXPECT_EQ(GetSha384(empty), kEmptySha384);
  EXPECT_EQ(GetSha384(abc), kAbcSha384);
  // A stream that is not good on entry gives the digest of nothing.
  std::ifstream missing("/nonexistent/file");
  EXPECT_EQ(GetSha384(missing), kEmptySha384);
  TempDir dir;

  std::string content;
  for (std::size_t i = 0; i < 300000; ++i)  // more than one read block
    content.push_back(static_cast<char>(i * 7919 % 251));
  WriteFile(dir / "big", content);
  std::fstream file(dir / "big", std::ios::in | std::ios::out);
  // Told by the coreutils tool: a block lost or hashed twice shows.
  ASSERT_EQ(std::system(("sha384sum " + (dir / "big") + " > " + (dir / "sum")).c_str()), 0);
  EXPECT_EQ(GetSha384(file), ReadFile(dir / "sum").substr(0, 96));
}

TEST(FlatFileName, SlashesAndDotsBecomeUnderscores) {
  EXPECT_EQ(FlatFileName("/lead.x/y.db"), "_lead_x_y_db");
  EXPECT_EQ(FlatFileName(""), "");
}

TEST(NoexceptFormat, ArgumentCountMismatchGivesTextNotException) {
  EXPECT_EQ((NoexceptFormat("Fail to create dir %s") % "/x").str(), "Fail to create dir /x");
  EXPECT_EQ((NoexceptFormat("%s and %s") % "one").str(), "one and ");
  EXPECT_EQ((NoexceptFormat("%s") % "one" % "two").str(), "one");
  EXPECT_EQ((NoexceptFormat("Failed to enum all volumes: %x") % 255).str(),
            "Failed to enum all volumes: ff");
}

TEST(UserAgent, NamesProductComponentAndSystem) {
  std::string agent = VeskGetUserAgent("database");
  EXPECT_EQ(agent.rfind("veskdbud/", 0), 0u) << agent;
  EXPECT_NE(agent.find("(database; "), std::string::npos) << agent;
  EXPECT_EQ(agent.back(), ')');
  EXPECT_UPDATE_ERROR(VeskGetUserAgent(std::string(2000, 'c')),
                      "Fail to generate user agent string");
}

TEST(UpdateError, TextIsExactAndCodeDefaultsToGeneral) {
  EXPECT_EQ(UpdateError("x").code(), UpdateError::kGeneral);
  EXPECT_EQ(UpdateError(std::string("x")).code(), UpdateError::kGeneral);
  EXPECT_EQ(static_cast<int>(UpdateError("x", UpdateError::kFileNotExist).code()), 1);
  for (const char* text : {"Fail to read: /x", "", "a\nb"})
    EXPECT_STREQ(UpdateError(std::string(text)).what(), text);
}

TEST(UpdateError, RethrownCopyKeepsMessageAndCode) {
  try {
    try {
      throw UpdateError("File not exist: /x", UpdateError::kFileNotExist);
    } catch (const UpdateError& e) {
      throw UpdateError(e);
    }
  } catch (const std::exception& e) {
    auto* update_error = dynamic_cast<const UpdateError*>(&e);
    ASSERT_NE(update_error, nullptr);
    EXPECT_STREQ(update_error->what(), "File not exist: /x");
    EXPECT_EQ(update_error->code(), UpdateError::kFileNotExist);
  }
}
