// Real processes for the lock tests: a forked child that runs a body and talks
// to the parent one byte at a time through two pipes, and a sandbox root for
// the library's fixed paths.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "dataupdate/error.h"
#include "test_support.h"

namespace vesk::test {

class ForkedChild {
 public:
  class Channel {
   public:
    Channel(int in, int out) : in_(in), out_(out) {}
    void Send(char message) const;
    // Blocks until the parent sends a byte; '\0' when the parent is gone.
    char Receive() const;

   private:
    int in_;
    int out_;
  };

  // Forks; the child runs `body` and exits with its result (100 when it throws).
  // The child must not use gtest assertions: it reports through its exit status.
  explicit ForkedChild(const std::function<int(const Channel&)>& body);
  ~ForkedChild();  // kills a child still running, and reaps it
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  void Send(char message) const;
  // The next byte from the child; '\0' when it closed its end or after `timeout`.
  char Receive(std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
  // The child's exit status; -1 if it was killed or did not end within `timeout`.
  int Wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // Sends SIGKILL and reaps the child; true when it was still running.
  bool Kill();

 private:
  pid_t pid_ = -1;
  int to_child_ = -1;
  int from_child_ = -1;
};

// VESKDBUD_ROOT pointed at a fresh directory for the object's lifetime.
class Sandbox {
 public:
  Sandbox();
  // `fixed` (such as "/run/data_update/x.lock") as the library resolves it.
  std::string Path(const std::string& fixed) const;
  void Write(const std::string& fixed, const std::string& content) const;
  const std::string& root() const { return root_.path(); }
  std::string operator/(const std::string& path) const { return root_ / path; }
  // A directory standing in for a data volume, created on first use.
  std::string volume() const;

 private:
  TempDir root_;
  ScopedEnv env_;
};

// Mount point directories on the host's root for tests that mount in a private
// namespace; the ones that had to be created are removed again.
class HostMountPoints {
 public:
  explicit HostMountPoints(const std::vector<std::string>& paths);
  ~HostMountPoints();
  HostMountPoints(const HostMountPoints&) = delete;
  HostMountPoints& operator=(const HostMountPoints&) = delete;
  const std::string& error() const { return error_; }

 private:
  std::vector<std::string> created_;
  std::string error_;
};

double SecondsSince(std::chrono::steady_clock::time_point start);

// What a forked child found wrong, one line each in a file, for the parent to
// report (gtest assertions do not reach the parent from a child).
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
  // Runs `call`, which must throw dataupdate::UpdateError with `message`.
  void Throws(const std::function<void()>& call, const std::string& message,
              const std::string& what) const {
    try {
      call();
      Expect(false, what + ": no error");
    } catch (const dataupdate::UpdateError& e) {
      Equal(std::string(e.what()), message, what);
    }
  }

 private:
  std::string path_;
};

// Runs `body` in a forked child inside a private mount namespace, so that
// nothing it mounts reaches the host, and turns its findings into failures.
// Skips without root or where such namespaces are not permitted.
void InMountNamespace(const std::function<void(const Findings&)>& body);

}  // namespace vesk::test
