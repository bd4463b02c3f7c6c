#include "download_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "write_all.h"

namespace vesk::cli {
namespace {

// A line no wget writes; the reader counts these to tell BytesSoFar that it
// has read everything before it.
// Ends the reader even when some process still holds the FIFO open.
const char kStop[] = "\x01veskdbud-stop\n";

std::string UserStartupFile() {
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0')
    return {};
  std::ifstream in(std::string(home) + "/.wgetrc");
  if (!in.is_open())
    return {};
  std::ostringstream text;
  text << in.rdbuf();
  return text.str() + "\n";
}

bool WriteFile(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0)
    return false;
  const bool written = WriteAll(fd, text);
  return close(fd) == 0 && written;
}

}  // namespace

std::optional<std::uint64_t> SavedBytes(const std::string& line) {
  const size_t url = line.find(" URL:");
  if (url == std::string::npos)
    return std::nullopt;
  const size_t open_bracket = line.find(" [", url);
  if (open_bracket == std::string::npos)
    return std::nullopt;
  size_t i = open_bracket + 2;
  std::uint64_t bytes = 0;
  const size_t first_digit = i;
  for (; i < line.size() && line[i] >= '0' && line[i] <= '9'; ++i)
    bytes = bytes * 10 + static_cast<std::uint64_t>(line[i] - '0');
  if (i == first_digit || i >= line.size() || (line[i] != '/' && line[i] != ']'))
    return std::nullopt;
  if (line.find("] -> ", i) == std::string::npos)
    return std::nullopt;
  return bytes;
}

std::string DownloadOutput::Settings(bool terminal, const std::string& log) {
  std::string text = "quiet = off\nverbose = off\n";
  if (!log.empty())
    text += "logfile = " + log + "\n";
  text += terminal ? "show_progress = on\n" : "show_progress = off\n";
  // A server that stops sending fails the try after 30 s: with the library's
  // three tries one download gives up within about 95 s, so an update that
  // falls back from the diff to the whole package ends within 5 minutes.
  text += "read_timeout = 30\n";
  return text;
}

DownloadOutput::DownloadOutput(bool verbose, bool terminal) : verbose_(verbose) {
  if (std::getenv("WGETRC") != nullptr)
    return;
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/veskdbud-wget-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr)
    return;
  dir_ = name.data();
  const std::string fifo = dir_ + "/log";
  const std::string rc = dir_ + "/wgetrc";
  // The reader end first, without blocking; then the writer end, which keeps
  // the reader from seeing the end between two downloads.
  if (mkfifo(fifo.c_str(), 0600) != 0 ||
      (read_fd_ = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) < 0 ||
      (write_fd_ = open(fifo.c_str(), O_WRONLY | O_CLOEXEC)) < 0 ||
      !WriteFile(rc, UserStartupFile() + Settings(terminal, fifo))) {
    return;  // the destructor cleans up what was made
  }
  if (setenv("WGETRC", rc.c_str(), 1) == 0)
    reader_ = std::thread([this] { Read(); });
}

DownloadOutput::~DownloadOutput() {
  if (reader_.joinable()) {
    if (!WriteAll(write_fd_, kStop)) {
      close(write_fd_);  // then the reader ends when the last writer closes
      write_fd_ = -1;
    }
    reader_.join();
  }
  if (write_fd_ >= 0)
    close(write_fd_);
  if (read_fd_ >= 0)
    close(read_fd_);
  if (dir_.empty())
    return;
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
  unsetenv("WGETRC");
}

// Everything the FIFO holds is read and counted under the mutex, by the
// reader thread when poll wakes it and by BytesSoFar itself, so a caller never
// waits for the other thread: what the finished downloads wrote is either
// still in the FIFO or already counted.
bool DownloadOutput::DrainLocked() {
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(read_fd_, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && errno == EAGAIN)
      return true;
    if (n <= 0)
      return false;
    pending_.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = pending_.find('\n')) != std::string::npos) {
      const std::string line = pending_.substr(0, end + 1);
      pending_.erase(0, end + 1);
      if (line == kStop)
        return false;
      if (const std::optional<std::uint64_t> bytes = SavedBytes(line))
        bytes_ += *bytes;
      if (verbose_)
        std::cerr << line << std::flush;
    }
  }
}

void DownloadOutput::Read() {
  for (;;) {
    pollfd ready{read_fd_, POLLIN, 0};
    if (poll(&ready, 1, -1) < 0 && errno != EINTR)
      break;
    const std::lock_guard<std::mutex> hold(mutex_);
    if (reader_done_ || !DrainLocked())
      break;
  }
  const std::lock_guard<std::mutex> hold(mutex_);
  reader_done_ = true;  // no more lines are counted
}

std::optional<std::uint64_t> DownloadOutput::BytesSoFar() {
  if (!reader_.joinable())
    return std::nullopt;
  const std::lock_guard<std::mutex> hold(mutex_);
  if (reader_done_ || !DrainLocked()) {
    reader_done_ = true;
    return std::nullopt;
  }
  return bytes_;
}

}  // namespace vesk::cli
