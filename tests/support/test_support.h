// Shared helpers of the unit and system tests: a fresh temporary directory per
// test, scoped environment variables, the log mirror, file helpers, a real HTTP
// server on 127.0.0.1 and an assertion for UpdateError messages.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "dataupdate/error.h"

namespace vesk::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool had_old_;
  std::string old_;
};

// Points VESKDBUD_LOG_FILE at a fresh file and reads back "<level>: <message>" lines.
class LogCapture {
 public:
  LogCapture();
  std::vector<std::string> Lines() const;
  std::vector<std::string> Matching(const std::string& needle) const;
  bool Contains(const std::string& line) const;
  void Clear() const;

 private:
  TempDir dir_;
  std::string path_;
  ScopedEnv env_;
};

void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
// `text` parsed; fails the test when it is no JSON.
Json::Value ParseJson(const std::string& text);
bool Exists(const std::string& path);
// `size` bytes that do not compress, the same for the same `seed`.
std::string Pseudorandom(size_t size, unsigned seed);
void SetAge(const std::string& path, long age_seconds);

// A python3 static file server over `dir` on 127.0.0.1, stopped on destruction.
class HttpServer {
 public:
  explicit HttpServer(const std::string& dir);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  int port() const { return port_; }
  // Requests served so far, each as "GET /path".
  std::vector<std::string> Requests() const;
  // Replaces the fault rules (a JSON list, see http_server.py); "[]" for none.
  // The server reads them on each request, so they apply from the next one.
  void SetFaults(const std::string& rules) const;

 private:
  TempDir log_dir_;
  std::string log_path_;
  std::string faults_path_;
  pid_t pid_ = -1;
  int port_ = 0;
};

// Runs a shell command; returns its exit status (128 when killed; output inherited).
int Shell(const std::string& command);
std::string ShellQuote(const std::string& text);

// A finished process: exit status (128 when killed), what it printed, how long it took.
struct CommandResult {
  int status = -1;
  std::string out;
  std::string err;
  double seconds = 0;
};

// Runs `argv` (argv[0] searched in PATH) with stdin from /dev/null and waits.
CommandResult RunCommand(const std::vector<std::string>& argv);

int UnusedPort();

}  // namespace vesk::test

// Expects `statement` to throw UpdateError whose what() equals `message`.
#define EXPECT_UPDATE_ERROR(statement, message)                        \
  do {                                                                 \
    try {                                                              \
      statement;                                                       \
      ADD_FAILURE() << "expected UpdateError \"" << (message) << "\""; \
    } catch (const ::vesk::dataupdate::UpdateError& e_) {              \
      EXPECT_EQ(std::string(e_.what()), std::string(message));         \
    }                                                                  \
  } while (0)
