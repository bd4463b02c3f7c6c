#include "test_support.h"

#include <fcntl.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vesk::test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  path_ = std::string(base && *base ? base : "/tmp") + "/veskdbud-test-XXXXXX";
  if (mkdtemp(path_.data()) == nullptr)
    throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
  boost::system::error_code ec;
  boost::filesystem::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(const std::string& name, const char* value) : name_(name) {
  const char* old = std::getenv(name.c_str());
  had_old_ = old != nullptr;
  if (had_old_)
    old_ = old;
  if (value != nullptr)
    setenv(name.c_str(), value, 1);
  else
    unsetenv(name.c_str());
}

ScopedEnv::~ScopedEnv() {
  if (had_old_)
    setenv(name_.c_str(), old_.c_str(), 1);
  else
    unsetenv(name_.c_str());
}

LogCapture::LogCapture()
    : path_(dir_ / "log.txt"), env_("VESKDBUD_LOG_FILE", (dir_ / "log.txt").c_str()) {}

namespace {

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

}  // namespace

std::vector<std::string> LogCapture::Lines() const {
  return ReadLines(path_);
}

std::vector<std::string> LogCapture::Matching(const std::string& needle) const {
  std::vector<std::string> found;
  for (const auto& line : Lines())
    if (line.find(needle) != std::string::npos)
      found.push_back(line);
  return found;
}

bool LogCapture::Contains(const std::string& line) const {
  const auto lines = Lines();
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

void LogCapture::Clear() const {
  std::ofstream(path_, std::ios::trunc);
}

void WriteFile(const std::string& path, const std::string& content) {
  boost::filesystem::path p(path);
  if (p.has_parent_path())
    boost::filesystem::create_directories(p.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out)
    throw std::runtime_error("cannot write " + path);
  out << content;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw std::runtime_error("cannot read " + path);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string Pseudorandom(size_t size, unsigned seed) {
  std::string s(size, '\0');
  for (char& c : s) {
    seed = seed * 1103515245u + 12345u;
    c = static_cast<char>(seed >> 16);
  }
  return s;
}

void SetAge(const std::string& path, long age_seconds) {
  boost::filesystem::last_write_time(path, std::time(nullptr) - age_seconds);
}

HttpServer::HttpServer(const std::string& dir)
    : log_path_(log_dir_ / "requests.log"), faults_path_(log_dir_ / "faults.json") {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  const std::string python = access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
  const std::string script = std::string(VESKDBUD_TEST_SUPPORT_DIR) + "/http_server.py";
  pid_ = fork();
  if (pid_ < 0)
    throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    int devnull = open("/dev/null", O_RDWR);
    dup2(devnull, STDIN_FILENO);
    dup2(devnull, STDERR_FILENO);
    execlp(python.c_str(), python.c_str(), script.c_str(), "--dir", dir.c_str(), "--log",
           log_path_.c_str(), "--faults", faults_path_.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string line;
  char c;
  while (read(out[0], &c, 1) == 1 && c != '\n')
    line.push_back(c);
  close(out[0]);
  port_ = std::atoi(line.c_str());
  if (port_ <= 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    throw std::runtime_error("http server did not start");
  }
}

HttpServer::~HttpServer() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

std::vector<std::string> HttpServer::Requests() const {
  return ReadLines(log_path_);
}

void HttpServer::SetFaults(const std::string& rules) const {
  // Renamed into place, so the server never reads half a list.
  const std::string next = faults_path_ + ".next";
  WriteFile(next, rules);
  if (std::rename(next.c_str(), faults_path_.c_str()) != 0)
    throw std::runtime_error("cannot set the server's faults");
}

int UnusedPort() {
  const TempDir dir;
  return HttpServer(dir.path()).port();  // stopped at once: nothing listens there any more
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

int Shell(const std::string& command) {
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

CommandResult RunCommand(const std::vector<std::string>& argv) {
  const TempDir io;
  std::string command = "exec";
  for (const auto& arg : argv)
    command += " " + ShellQuote(arg);
  CommandResult result;
  const auto start = std::chrono::steady_clock::now();
  result.status =
      Shell(command + " </dev/null >" + ShellQuote(io / "out") + " 2>" + ShellQuote(io / "err"));
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.out = ReadFile(io / "out");
  result.err = ReadFile(io / "err");
  return result;
}

}  // namespace vesk::test
