// How the library's downloads look on the tool's stderr.
//
// The library fetches with /usr/bin/wget, which inherits the tool's stderr and
// environment. Left alone, wget writes several lines of connection details per
// download and, when stderr is not a terminal, a "dot" log. Unless the user set
// WGETRC, the tool points WGETRC at a small startup file of its own: the
// user's ~/.wgetrc (when readable), then
//
//   quiet = on           (off with --verbose: one line per download and
//   verbose = off         wget's own error lines, such as "ERROR 404")
//   show_progress = on   only when stderr is a terminal: a progress bar
//   read_timeout = 30    a stalled server fails the try (wget waits 900 s)
//
// so a terminal shows a progress bar per download and anything else gets a
// plain log: the tool's own lines (and the library's with --verbose).
#pragma once

#include <string>

namespace vesk::cli {

class DownloadOutput {
 public:
  // Sets WGETRC for the children the library will start; does nothing when
  // WGETRC is already set or the file cannot be made.
  DownloadOutput(bool verbose, bool terminal);
  ~DownloadOutput();  // removes the file
  DownloadOutput(const DownloadOutput&) = delete;
  DownloadOutput& operator=(const DownloadOutput&) = delete;

  // The startup text for these settings (without the user's file).
  static std::string Settings(bool verbose, bool terminal);

 private:
  std::string path_;
};

}  // namespace vesk::cli
