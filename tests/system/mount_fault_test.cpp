// Faults that need real mounts, made in a private mount namespace (a forked
// child; skipped with the reason where namespaces are not permitted): a volume
// that is another file system than the root, and full disks (small tmpfs
// mounts over the volume and over the local configuration directory).
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

#include "service_fixture.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;
using namespace std::chrono_literals;

namespace {

constexpr int kSkip = 77;

// What the child found wrong, one line each, for the parent to report.
class Findings {
 public:
  explicit Findings(std::string path) : path_(std::move(path)) {}
  void Expect(bool ok, const std::string& what) const {
    if (!ok)
      std::ofstream(path_, std::ios::app) << what << "\n";
  }
  template <typename A, typename B>
  void Equal(const A& got, const B& want, const std::string& what) const {
    std::ostringstream line;
    line << what << ": got \"" << got << "\", expected \"" << want << "\"";
    Expect(got == want, line.str());
  }
  // Runs `call`, which must throw UpdateError with `message`.
  void Throws(const std::function<void()>& call, const std::string& message,
              const std::string& what) const {
    try {
      call();
      Expect(false, what + ": no error");
    } catch (const UpdateError& e) {
      Equal(std::string(e.what()), message, what);
    }
  }
  // Runs `call`, which must throw UpdateError whose message begins with `prefix`.
  void ThrowsBeginning(const std::function<void()>& call, const std::string& prefix,
                       const std::string& what) const {
    try {
      call();
      Expect(false, what + ": no error");
    } catch (const UpdateError& e) {
      Expect(std::string(e.what()).rfind(prefix, 0) == 0, what + ": " + e.what());
    }
  }

 private:
  std::string path_;
};

class MountFaultTest : public ServiceTest {
 protected:
  // Runs `body` in a child inside a private mount namespace and reports what
  // it found; skips where the namespace or the mounts are not permitted.
  void InNamespace(const std::function<void(const Findings&)>& body) {
    if (geteuid() != 0)
      GTEST_SKIP() << "mounting a tmpfs needs root (euid " << geteuid() << ")";
    const std::string findings_path = sandbox / "findings";
    ForkedChild child([&](const ForkedChild::Channel&) {
      const Findings findings(findings_path);
      if (unshare(CLONE_NEWNS) != 0 ||
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        findings.Expect(false, std::string("private mount namespace: ") + std::strerror(errno));
        return kSkip;
      }
      try {
        body(findings);
      } catch (const std::exception& e) {
        findings.Expect(false, std::string("unexpected error: ") + e.what());
      }
      return 0;
    });
    const int status = child.Wait(120s);
    const std::string findings = Exists(findings_path) ? ReadFile(findings_path) : "";
    if (status == kSkip)
      GTEST_SKIP() << findings;
    std::istringstream lines(findings);
    for (std::string line; std::getline(lines, line);)
      ADD_FAILURE() << line;
    EXPECT_EQ(status, 0) << "100: the child threw something that is no exception";
  }

  Service service;
};

// The volume is a file system of its own, as on every appliance, and db1 is
// installed on the root file system: its files are extracted on the volume
// and copied across. The whole-package install, a diff update (which copies
// the installed files to the volume to patch them) and a repair all work.
// Boost.Filesystem's copy failed across file systems ("Invalid cross-device
// link"), so such a database was never installed.
TEST_F(MountFaultTest, ADatabaseOnTheRootFileSystemIsInstalledFromAVolumeOfItsOwn) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1", "%ROOTFS%"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string db1 = sandbox.Path("/var/db/db1");

  InNamespace([&](const Findings& findings) {
    if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=16m") != 0) {
      findings.Expect(false, std::string("mount the volume: ") + std::strerror(errno));
      return;
    }
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst)), "", "release 0");
    Release("db1", 1);
    findings.Equal(repo.Publish(), 0, "publish release 1");
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    service.update.UpdateProject("db1");
    findings.Equal(log.Matching("Diff update fail").size(), 0u, "fallbacks from the diff");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1), true), "", "release 1");
    WriteFile(db1 + "/readme.txt", "damaged");
    service.update.FixProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1), true), "", "repaired");
  });
}

}  // namespace
