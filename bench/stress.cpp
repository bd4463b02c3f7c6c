// The soak of `make stress`: eight processes on three databases for
// VESKDBUD_STRESS_SECONDS (120 by default): updaters, a forced installer, a
// repairer, a checker and three readers under the read lock, who must always
// see whole releases and whole status files. No process may hang; one update
// afterwards brings the last release.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "dataupdate/file_lock.h"
#include "dataupdate/project_lock.h"
#include "service_fixture.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;
using namespace std::chrono_literals;

namespace {

constexpr int kReleases = 5;
const std::vector<std::string> kIds{"db1", "db2", "db3"};
const std::vector<std::string> kFiles{"readme.txt", "tables/table.bin", "data/list.txt"};

double StressSeconds() {
  const char* text = std::getenv("VESKDBUD_STRESS_SECONDS");
  const double seconds = text != nullptr ? std::atof(text) : 0;
  return seconds > 0 ? seconds : 120;
}

// What one process did and found; written to a file for the parent.
class Tally {
 public:
  explicit Tally(std::string path) : path_(std::move(path)) {}
  ~Tally() {
    std::ofstream out(path_);
    out << count_ << "\n" << findings_.str();
  }
  Tally(const Tally&) = delete;
  Tally& operator=(const Tally&) = delete;
  void Count() { ++count_; }
  void Find(const std::string& what) {
    if (++found_ <= 20)
      findings_ << what << "\n";
  }
  bool clean() const { return found_ == 0; }

 private:
  std::string path_;
  long count_ = 0;
  long found_ = 0;
  std::ostringstream findings_;
};

class StressTest : public ServiceTest {
 protected:
  // Every file of release `n` of `id` begins with a line naming both; the
  // table changes one byte per release (a delta), the list grows by a line.
  void PublishReleases() {
    for (const std::string& id : kIds) {
      std::string list;
      for (int n = 0; n < kReleases; ++n) {
        const int version = kFirst + n;
        const std::string head = id + " release " + std::to_string(n) + "\n";
        std::string table = Pseudorandom(32 << 10, static_cast<unsigned>(id.back()));
        table[100 + n] = 'x';
        list += "entry " + std::to_string(n) + "\n";
        repo.SetFile(id, version, "readme.txt", head);
        repo.SetFile(id, version, "tables/table.bin", head + table);
        repo.SetFile(id, version, "data/list.txt", head + list);
      }
    }
    ASSERT_EQ(repo.Publish(), 0);
  }

  // Runs `body` in a child until the deadline, with its own service objects.
  std::unique_ptr<ForkedChild> Start(
      const std::string& name, const std::function<void(Service&, Tally&, std::mt19937&)>& body) {
    const std::string path = sandbox / ("tally/" + name);
    names_.push_back(name);
    const auto deadline = deadline_;
    const unsigned seed = static_cast<unsigned>(names_.size());
    return std::make_unique<ForkedChild>([=](const ForkedChild::Channel&) {
      Service service;
      std::mt19937 random(seed);
      Tally tally(path);
      while (std::chrono::steady_clock::now() < deadline) {
        try {
          body(service, tally, random);
        } catch (const UpdateError& e) {
          tally.Find(name + ": " + e.what());
        }
      }
      return tally.clean() ? 0 : 1;
    });
  }

  // One reader's look at `id`: under the read lock, every file is there and
  // names one published release, or (before the first install has replaced
  // anything) none is there; the status file, when there, is whole.
  // `installed` holds the databases this reader has seen installed.
  static void Read(const std::string& id, const std::string& prefix, const std::string& status,
                   std::set<std::string>& installed, Tally& tally) {
    const int fd = VESKDBUDGetFileLock(id.c_str(), 60);
    if (fd == -2)
      return;  // not installed yet: no lock file
    if (fd < 0) {
      tally.Find(id + ": no read lock within 60 s");
      return;
    }
    std::map<std::string, std::string> heads;
    for (const std::string& file : kFiles) {
      std::ifstream in(prefix + "/" + file, std::ios::binary);
      std::string head;
      if (std::getline(in, head))
        heads[file] = head;
    }
    VESKDBUDReleaseFileLock(fd);
    if (heads.empty() && installed.count(id) == 0) {
      // The first install made the lock file and had not locked it yet.
    } else if (heads.size() != kFiles.size()) {
      tally.Find(id + ": " + std::to_string(heads.size()) + " of " + std::to_string(kFiles.size()) +
                 " files");
    } else {
      installed.insert(id);
      const std::string release = heads.begin()->second;
      for (const auto& [file, head] : heads) {
        if (head != release || head.rfind(id + " release ", 0) != 0)
          tally.Find(id + ": " + file + " is \"" + head + "\" beside \"" + release + "\"");
      }
    }
    std::ifstream in(status);
    if (in) {
      Json::Value value;
      if (!Json::Reader().parse(in, value) || !value["data_version"].isString())
        tally.Find(id + ": a status file that does not decode");
    }
    tally.Count();
  }

  std::vector<std::string> names_;
  std::chrono::steady_clock::time_point deadline_;
};

TEST_F(StressTest, EightProcessesOnThreeDatabasesLoseNothingAndReadersSeeWholeReleases) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}, {"db2"}, {"db3"}});
  PublishReleases();
  fs::create_directories(sandbox / "tally");
  const double seconds = StressSeconds();
  deadline_ = std::chrono::steady_clock::now() +
              std::chrono::milliseconds(static_cast<long>(seconds * 1000));
  const auto pick = [](std::mt19937& random) { return kIds[random() % kIds.size()]; };

  std::vector<std::unique_ptr<ForkedChild>> children;
  children.push_back(Start("updater", [&](Service& s, Tally& t, std::mt19937& r) {
    if (r() % 4 == 0 && Exists(Cache()))
      SetAge(Cache(), 3601 + 60);
    s.update.UpdateProject(pick(r));
    t.Count();
    // Locks are polled every 100 ms: a process that takes them again at once
    // in a loop would keep the others waiting, which no caller does.
    std::this_thread::sleep_for(50ms);
  }));
  children.push_back(Start("all-updater", [&](Service& s, Tally& t, std::mt19937&) {
    s.update.UpdateAllProjects();
    t.Count();
    std::this_thread::sleep_for(100ms);
  }));
  children.push_back(Start("force-installer", [&](Service& s, Tally& t, std::mt19937& r) {
    s.update.ForceInstall(pick(r), kFirst + static_cast<int>(r() % (kReleases - 1)));
    t.Count();
    std::this_thread::sleep_for(300ms);
  }));
  children.push_back(Start("repairer", [&](Service& s, Tally& t, std::mt19937& r) {
    const std::string id = pick(r);
    if (r() % 2 == 0) {
      // Under the locks an update takes, so no update is writing it now.
      FileLock any(sandbox.Path("/run/data_update/update_any.lock"), 600);
      FileLock one(sandbox.Path("/run/data_update/update_" + id + ".lock"), 600);
      fs::remove(StatusPath(id));
    }
    s.update.FixProject(id);
    t.Count();
    std::this_thread::sleep_for(200ms);
  }));
  children.push_back(Start("checker", [&](Service& s, Tally& t, std::mt19937& r) {
    s.checker.IsAnyUpdating();
    s.checker.IsUpdating(pick(r));
    t.Count();
    std::this_thread::sleep_for(10ms);
  }));
  for (int i = 1; i <= 3; ++i) {
    auto installed = std::make_shared<std::set<std::string>>();
    children.push_back(
        Start("reader" + std::to_string(i), [&, installed](Service&, Tally& t, std::mt19937& r) {
          const std::string id = pick(r);
          Read(id, Prefix(id), StatusPath(id), *installed, t);
          std::this_thread::sleep_for(5ms);
        }));
  }

  // Every process ends soon after the deadline: none is stuck on a lock.
  for (size_t i = 0; i < children.size(); ++i) {
    const auto limit = std::chrono::milliseconds(static_cast<long>(seconds * 1000)) + 120s;
    const int status = children[i]->Wait(limit);
    std::string tally;
    const std::string path = sandbox / ("tally/" + names_[i]);
    if (Exists(path))
      tally = ReadFile(path);
    std::istringstream lines(tally);
    std::string count;
    std::getline(lines, count);
    std::cout << names_[i] << ": " << count << " operations" << std::endl;
    EXPECT_EQ(status, 0) << names_[i] << (status == -1 ? " did not end" : " found:\n") << tally;
    EXPECT_GT(std::atol(count.c_str()), 0) << names_[i] << " did nothing";
  }

  // Afterwards: no lock held, and one update of all brings the last release.
  for (const char* lock : {"update_any.lock", "fresh_info.lock", "config.lock"}) {
    const std::string path = sandbox.Path(std::string("/run/data_update/") + lock);
    if (Exists(path)) {
      EXPECT_NO_THROW(FileLock(path, 0)) << lock;
    }
  }
  Service service;
  SetAge(Cache(), 3601 + 60);
  service.update.UpdateAllProjects();
  for (const std::string& id : kIds) {
    EXPECT_EQ(CompareTrees(Prefix(id), repo.SourceDir(id, kFirst + kReleases - 1)), "") << id;
    EXPECT_EQ(Status(id)["data_version"], std::to_string(kFirst + kReleases - 1)) << id;
    EXPECT_FALSE(service.checker.IsUpdating(id));
  }
  const std::string tmp = volume + "/@tmp/data_update";
  EXPECT_TRUE(!fs::exists(tmp) || fs::is_empty(tmp));
}

}  // namespace
