// Configuration writes from several processes at once: serialised by
// "/run/data_update/config.lock", so no process loses another's key.
#include <chrono>
#include <memory>
#include <thread>

#include "dataupdate/config.h"
#include "dataupdate/file_lock.h"
#include "forked_child.h"
#include "test_support.h"
#include "vesk/root.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

class ConfigWritersTest : public ::testing::Test {
 protected:
  ConfigWritersTest() {
    sandbox.Write("/usr/share/data_update/data_update.conf", R"({"config": {}})");
  }
  Sandbox sandbox;
};

}  // namespace

TEST_F(ConfigWritersTest, ConcurrentWritersLoseNoKey) {
  constexpr int kProcesses = 4;
  constexpr int kKeysEach = 15;
  std::vector<std::unique_ptr<ForkedChild>> writers;
  for (int p = 0; p < kProcesses; ++p) {
    writers.push_back(std::make_unique<ForkedChild>([p](const ForkedChild::Channel& parent) {
      parent.Receive();  // all start together
      auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
      config->Init(vesk::platform::RootPath("/usr/share/data_update/data_update.conf"),
                   vesk::platform::RootPath("/usr/vesk/etc/data_update/data_update.conf"));
      for (int k = 0; k < kKeysEach; ++k)
        config->Set("p" + std::to_string(p), "k" + std::to_string(k), 1ULL * p * 100 + k);
      return 0;
    }));
  }
  for (auto& writer : writers)
    writer->Send('g');
  for (auto& writer : writers)
    EXPECT_EQ(writer->Wait(), 0);

  Config config(std::make_shared<IOUtils>());
  config.Init(sandbox.Path("/usr/share/data_update/data_update.conf"),
              sandbox.Path("/usr/vesk/etc/data_update/data_update.conf"));
  EXPECT_EQ(config.GetSections().size(), static_cast<size_t>(kProcesses));
  for (int p = 0; p < kProcesses; ++p) {
    for (int k = 0; k < kKeysEach; ++k) {
      EXPECT_EQ(config.GetAsUInt64("p" + std::to_string(p), "k" + std::to_string(k)),
                1ULL * p * 100 + k);
    }
  }
}

TEST_F(ConfigWritersTest, SetWaitsWhileAnotherProcessHoldsTheConfigurationLock) {
  const std::string lock_path = sandbox.Path("/run/data_update/config.lock");
  ForkedChild holder([&](const ForkedChild::Channel& parent) {
    FileLock lock(lock_path, 0);
    parent.Send('L');
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    return 0;
  });
  ASSERT_EQ(holder.Receive(), 'L');
  ServiceConfig service(std::make_shared<Config>(std::make_shared<IOUtils>()));
  const auto start = std::chrono::steady_clock::now();
  service.SetCurVolume("/mnt/v9");
  EXPECT_GE(SecondsSince(start), 0.3);
  EXPECT_EQ(service.GetCurVolume(), "/mnt/v9");
  EXPECT_EQ(holder.Wait(), 0);
}
