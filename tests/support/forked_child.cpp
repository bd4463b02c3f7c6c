#include "forked_child.h"

#include <boost/filesystem.hpp>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "vesk/root.h"

namespace vesk::test {

void ForkedChild::Channel::Send(char message) const {
  if (write(out_, &message, 1) != 1)
    _exit(101);
}

char ForkedChild::Channel::Receive() const {
  char message = '\0';
  return read(in_, &message, 1) == 1 ? message : '\0';
}

ForkedChild::ForkedChild(const std::function<int(const Channel&)>& body) {
  int down[2];
  int up[2];
  if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  pid_ = fork();
  if (pid_ < 0)
    throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    close(down[1]);
    close(up[0]);
    int status = 100;
    try {
      status = body(Channel(down[0], up[1]));
    } catch (...) {
      status = 100;
    }
    _exit(status);  // no gtest or atexit handlers in the child
  }
  close(down[0]);
  close(up[1]);
  to_child_ = down[1];
  from_child_ = up[0];
}

ForkedChild::~ForkedChild() {
  close(to_child_);
  close(from_child_);
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void ForkedChild::Send(char message) const {
  if (write(to_child_, &message, 1) != 1)
    throw std::runtime_error("child is gone");
}

char ForkedChild::Receive(std::chrono::milliseconds timeout) const {
  pollfd pfd{from_child_, POLLIN, 0};
  if (poll(&pfd, 1, static_cast<int>(timeout.count())) <= 0)
    return '\0';
  char message = '\0';
  return read(from_child_, &message, 1) == 1 ? message : '\0';
}

int ForkedChild::Wait(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (pid_ > 0) {
    int status = 0;
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (done < 0 || std::chrono::steady_clock::now() >= deadline)
      return -1;  // the destructor kills it
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return -1;
}

bool ForkedChild::Kill() {
  if (pid_ <= 0)
    return false;
  const bool running = kill(pid_, SIGKILL) == 0;
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return running && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

Sandbox::Sandbox() : env_("VESKDBUD_ROOT", root_.path().c_str()) {}

std::string Sandbox::Path(const std::string& fixed) const {
  return vesk::platform::RootPath(fixed);
}

void Sandbox::Write(const std::string& fixed, const std::string& content) const {
  WriteFile(Path(fixed), content);
}

std::string Sandbox::volume() const {
  const std::string path = root_ / "volume1";
  boost::filesystem::create_directories(path);
  return path;
}

HostMountPoints::HostMountPoints(const std::vector<std::string>& paths) {
  for (const auto& path : paths) {
    if (mkdir(path.c_str(), 0755) == 0) {
      created_.push_back(path);
    } else if (errno != EEXIST) {
      error_ = "mkdir " + path + ": " + std::strerror(errno);
      return;
    }
  }
}

HostMountPoints::~HostMountPoints() {
  for (const auto& path : created_)
    rmdir(path.c_str());
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void InMountNamespace(const std::function<void(const Findings&)>& body) {
  if (geteuid() != 0)
    GTEST_SKIP() << "mounting needs root (euid " << geteuid() << ")";
  constexpr int kSkip = 77;
  TempDir dir;
  const std::string path = dir / "findings";
  ForkedChild child([&](const ForkedChild::Channel&) {
    const Findings findings(path);
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      findings.Expect(false, std::string("no private mount namespace: ") + std::strerror(errno));
      return kSkip;
    }
    try {
      body(findings);
    } catch (const std::exception& e) {
      findings.Expect(false, std::string("unexpected error: ") + e.what());
    }
    return 0;
  });
  const int status = child.Wait(std::chrono::seconds(120));
  const std::string report = Exists(path) ? ReadFile(path) : "";
  if (status == kSkip)
    GTEST_SKIP() << report;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);)
    ADD_FAILURE() << line;
  EXPECT_EQ(status, 0) << "the child died (-1) or threw something that is no exception (100)";
}

}  // namespace vesk::test
