#include "log.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_sites.h"
#include "test_support.h"

namespace log = vesk::dataupdate::log;
using namespace vesk::test;

TEST(Log, MirrorLineCarriesLevelLabelAndLine) {
  LogCapture capture;
  // Lines of the locks and the hook are pinned where they are written; these
  // are a negative number and a line without a location.
  log::Write(log::site::kSpaceAvailable, static_cast<intmax_t>(-5));
  log::Write(log::site::kHwidFailed);
  EXPECT_EQ(capture.Lines(), (std::vector<std::string>{"debug: strategy.cpp:91 available: -5",
                                                       "err: Failed to init hwid context"}));
  {  // Without a usable mirror nothing is written and the caller goes on.
    ScopedEnv unset("VESKDBUD_LOG_FILE", nullptr);
    log::Write(log::site::kUpToDate, std::string("db"));
    ScopedEnv bad("VESKDBUD_LOG_FILE", "/nonexistent/dir/log");
    log::Write(log::site::kUpToDate, std::string("db"));
  }
  EXPECT_EQ(capture.Lines().size(), 2u);
}

TEST(Log, LinesFromSeveralProcessesAreNotInterleaved) {
  LogCapture capture;
  const std::string long_text(1500, 'x');
  std::vector<pid_t> children;
  for (int c = 0; c < 4; ++c) {
    pid_t pid = fork();
    if (pid == 0) {
      for (int i = 0; i < 50; ++i)
        log::Write(log::site::kStatusMissing, long_text);
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children)
    waitpid(pid, nullptr, 0);
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 200u);
  for (const auto& line : lines)
    EXPECT_EQ(line, "info: update.cpp:170 " + long_text);
}
