// IOUtils::Download with the real wget against a real HTTP server on 127.0.0.1
// (its failures are in service_test, where the service meets them).
#include <gtest/gtest.h>

#include "dataupdate/io_utils.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

class DownloadTest : public ::testing::Test {
 protected:
  TempDir served;
  TempDir out;
  IOUtils io;
};

TEST_F(DownloadTest, FetchesOrReplacesTheDestinationAndLogsTheUserAgent) {
  std::string payload(200000, '\0');
  for (size_t i = 0; i < payload.size(); ++i)
    payload[i] = static_cast<char>(i % 253);
  WriteFile(served / "db/pkg.bin", payload);
  SetAge(served / "db/pkg.bin", 100);
  WriteFile(out / "pkg", std::string(300000, 's'));  // newer and longer: replaced all the same
  HttpServer server(served.path());
  LogCapture log;

  io.Download(out / "pkg", server.url("/db/pkg.bin"));
  EXPECT_EQ(ReadFile(out / "pkg"), payload);
  EXPECT_EQ(log.Matching("utils.cpp:229 Use "),
            std::vector<std::string>{"debug: utils.cpp:229 Use " + VeskGetUserAgent("database") +
                                     " as user agent string"});
  EXPECT_EQ(server.Requests(), (std::vector<std::string>{"GET /db/pkg.bin"}));
}
