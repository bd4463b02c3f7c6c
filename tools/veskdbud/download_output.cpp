#include "download_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace vesk::cli {
namespace {

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

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0)
      return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::string DownloadOutput::Settings(bool verbose, bool terminal) {
  std::string text = verbose ? "quiet = off\nverbose = off\n" : "quiet = on\n";
  text += terminal ? "show_progress = on\n" : "show_progress = off\n";
  // A server that stops sending fails the try after 30 s: with the library's
  // three tries one download gives up within about 95 s, so an update that
  // falls back from the diff to the whole package ends within 5 minutes.
  text += "read_timeout = 30\n";
  return text;
}

DownloadOutput::DownloadOutput(bool verbose, bool terminal) {
  if (std::getenv("WGETRC") != nullptr)
    return;
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/veskdbud-wgetrc-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0)
    return;
  const bool written = WriteAll(fd, UserStartupFile() + Settings(verbose, terminal));
  close(fd);
  if (!written || setenv("WGETRC", name.data(), 1) != 0) {
    unlink(name.data());
    return;
  }
  path_ = name.data();
}

DownloadOutput::~DownloadOutput() {
  if (path_.empty())
    return;
  unlink(path_.c_str());
  unsetenv("WGETRC");
}

}  // namespace vesk::cli
