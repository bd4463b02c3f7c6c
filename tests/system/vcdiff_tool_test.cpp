// veskdbudvcdiff run as the update engine runs it: decode SOURCE OUTPUT DELTA.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "file_delta.h"
#include "package_craft.h"
#include "test_support.h"

using namespace vesk::test;

const std::string kTool = VESKDBUD_VCDIFF_BIN;

class VcdiffToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string base = Pseudorandom(300000, 7);
    WriteFile(source, base);
    WriteFile(wanted, base.substr(0, 100000) + "inserted text\n" + base.substr(120000) +
                          Pseudorandom(5000, 9));
    vesk::publish::MakeVcdiff(source, wanted, delta);
  }

  TempDir dir;
  std::string source = dir / "source";
  std::string wanted = dir / "wanted";
  std::string delta = dir / "delta.vcdiff";
  std::string output = dir / "out/result";
};

// A delta decodes to the wanted file, replacing an existing output whole;
// each failure exits with its status and leaves no output.
TEST_F(VcdiffToolTest, DecodesOrFailsWithItsStatusLeavingNoOutput) {
  WriteFile(output, std::string(1000000, 'z'));
  const CommandResult decoded = RunCommand({kTool, "decode", source, output, delta});
  ASSERT_EQ(decoded.status, 0) << decoded.err;
  EXPECT_EQ(ReadFile(output), ReadFile(wanted));
  EXPECT_LT(ReadFile(delta).size(), 20000u);  // a real delta, not a copy
  EXPECT_EQ(ListTree(dir / "out"), std::vector<std::string>{"result"});
  boost::filesystem::remove(output);
  WriteFile(dir / "other", Pseudorandom(300000, 8));
  WriteFile(dir / "bad.vcdiff", "\xd6\xc3\xc4\x00garbage that is no delta");
  const std::string usage = "veskdbudvcdiff: expected: decode SOURCE OUTPUT DELTA\n";
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;  // in stderr; all of it when it ends in a newline
  };
  const std::vector<Case> cases{
      {{"decode", dir / "other", output, delta}, 1, "veskdbudvcdiff: decoding " + delta},
      {{"decode", source, output, dir / "bad.vcdiff"}, 1, "veskdbudvcdiff: decoding "},
      {{"decode", dir / "nope", output, delta},
       1,
       "veskdbudvcdiff: cannot read source file " + dir / "nope" + ": No such file or directory\n"},
      {{"decode", source, output, dir / "nodelta"},
       1,
       "veskdbudvcdiff: cannot read delta file " + dir / "nodelta" +
           ": No such file or directory\n"},
      {{"decode", source, dir / "no-dir/result", delta},
       1,
       "veskdbudvcdiff: cannot create output next to " + dir / "no-dir/result"},
      {{}, 2, usage},
      {{"encode", source, output, delta}, 2, usage},
      {{"decode", source, output}, 2, usage},
      {{"decode", source, output, delta, "extra"}, 2, usage},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv{kTool};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const CommandResult r = RunCommand(argv);
    EXPECT_EQ(r.status, c.status) << r.err;
    if (c.status == 2)  // usage: the line, then the help
      EXPECT_EQ(r.err.rfind(c.err, 0), 0u) << r.err;
    else if (c.err.back() == '\n')
      EXPECT_EQ(r.err, c.err);
    else
      EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_TRUE(ListTree(dir / "out").empty()) << r.err;
  }
  const CommandResult help = RunCommand({kTool, "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage: veskdbudvcdiff decode SOURCE OUTPUT DELTA\n", 0), 0u);
}
