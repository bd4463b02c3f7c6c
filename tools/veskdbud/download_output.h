// How the library's downloads look on the tool's stderr, and how many bytes
// they brought.
//
// The library fetches with /usr/bin/wget, which inherits the tool's stderr and
// environment. Left alone, wget writes several lines of connection details per
// download and, when stderr is not a terminal, a "dot" log. Unless the user set
// WGETRC, the tool points WGETRC at a small startup file of its own: the
// user's ~/.wgetrc (when readable), then
//
//   quiet = off          wget's one line per download ("URL:... [N/N] -> ...")
//   verbose = off         and its own error lines, such as "ERROR 404", go to
//   logfile = <fifo>      a FIFO the tool reads: counted, and shown on stderr
//                         only with --verbose
//   show_progress = on   only when stderr is a terminal: a progress bar
//   read_timeout = 30    a stalled server fails the try (wget waits 900 s)
//
// so a terminal shows a progress bar per download and anything else gets a
// plain log: the tool's own lines (and the library's with --verbose).
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace vesk::cli {

class DownloadOutput {
 public:
  // Sets WGETRC for the children the library will start; does nothing when
  // WGETRC is already set or the files cannot be made.
  DownloadOutput(bool verbose, bool terminal);
  ~DownloadOutput();  // stops the reader, removes the files
  DownloadOutput(const DownloadOutput&) = delete;
  DownloadOutput& operator=(const DownloadOutput&) = delete;

  // The startup text for these settings (without the user's file).
  static std::string Settings(bool terminal, const std::string& log);

  // The bytes that every finished download has brought so far; nullopt when
  // they are not counted (the user's own WGETRC). Call it only while no
  // download runs: it counts what is still in the FIFO itself.
  std::optional<std::uint64_t> BytesSoFar();

 private:
  void Read();
  bool DrainLocked();  // false at the end of the FIFO, an error or the stop line

  bool verbose_;
  std::string dir_;
  int read_fd_ = -1;
  int write_fd_ = -1;  // keeps the FIFO open between downloads
  std::thread reader_;
  std::mutex mutex_;
  std::string pending_;  // a line not yet ended
  std::uint64_t bytes_ = 0;
  bool reader_done_ = false;  // it met an error: nothing is counted any more
};

// The bytes a wget log line reports as saved ("... URL:u [1234/1234] -> ..."
// or "[1234] -> ..."); nullopt for any other line.
std::optional<std::uint64_t> SavedBytes(const std::string& line);

}  // namespace vesk::cli
