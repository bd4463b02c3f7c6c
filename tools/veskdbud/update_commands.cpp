// update, fix and force-install: the library's Update operations, with one
// line per database on stdout and the outcome recorded for `status`.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <utility>

#include "cli.h"
#include "commands.h"
#include "download_output.h"
#include "last_result.h"
#include "library.h"
#include "metrics.h"
#include "system_paths.h"

namespace vesk::cli {
namespace {

using Describe = std::function<std::pair<std::string, std::string>(int before, int after)>;

// What tells one status file from another: any write gives a new time stamp,
// a replacement also a new inode.
struct StatusFile {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;
  timespec changed;

  bool operator==(const StatusFile& o) const {
    return device == o.device && inode == o.inode && size == o.size &&
           modified.tv_sec == o.modified.tv_sec && modified.tv_nsec == o.modified.tv_nsec &&
           changed.tv_sec == o.changed.tv_sec && changed.tv_nsec == o.changed.tv_nsec;
  }
};

std::optional<StatusFile> StatusFileNow(const std::string& id) {
  struct stat st;
  if (stat(SystemPath("/var/lib/data_update/" + id + "/version.json").c_str(), &st) != 0)
    return std::nullopt;
  return StatusFile{st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
}

// When the database last succeeded, as the previous record tells: its own
// field, or for a record without one its time when it succeeded.
std::optional<long long> LastSuccess(const Json::Value& previous) {
  if (previous["last_success_time"].isIntegral())
    return previous["last_success_time"].asInt64();
  if (previous["ok"].isBool() && previous["ok"].asBool() && previous["time"].isIntegral())
    return previous["time"].asInt64();
  return std::nullopt;
}

// Runs `work` on database `id` as operation `operation`, records the outcome
// with its duration and the bytes `output` counted, and prints "<id>: <line>"
// where `describe` gives (outcome, line) from the installed versions before
// and after. `note_before` takes note of what else `describe` compares.
// Failures are recorded and rethrown.
void RunRecorded(
    const Library& lib, DownloadOutput& output, dataupdate::Update& update, const std::string& id,
    const std::string& operation, const Describe& describe, const std::function<void()>& work,
    const std::function<void()>& note_before = [] {}) {
  LastResult result;
  result.operation = operation;
  result.last_success_time = LastSuccess(ReadLastResult(*lib.io, id));
  // Looked at before it is read: a plain status file (read quickly, with no
  // log line) found the same afterwards was not written, so the version read
  // before still holds. Any other is read again, as it was before.
  std::optional<StatusFile> seen;
  std::optional<int> quick;
  const auto read_before = [&] {
    seen = StatusFileNow(id);
    quick = lib.info->QuickInstalledVersion(id);
    result.version_before = quick ? *quick : lib.info->GetDatabaseStatus(id).data_version;
    note_before();
  };
  // Read once now, for a run that fails before it holds the update locks, and
  // again once it holds them when the status changed meanwhile: another run
  // may have done the work while this one waited, and this one did not.
  read_before();
  update.SetLockedHook([&](const std::string& locked) {
    if (locked == id && !(StatusFileNow(id) == seen))
      read_before();
  });
  struct Unhook {
    dataupdate::Update& update;
    ~Unhook() { update.SetLockedHook(nullptr); }
  } unhook{update};
  const auto version_after = [&] {
    const std::optional<StatusFile> now = StatusFileNow(id);
    return quick && seen && now && *seen == *now ? *quick : lib.InstalledVersion(id);
  };
  const std::optional<std::uint64_t> bytes_before = output.BytesSoFar();
  const auto start = std::chrono::steady_clock::now();
  const auto finish = [&] {
    result.duration_seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const std::optional<std::uint64_t> bytes_after = output.BytesSoFar();
    if (bytes_before && bytes_after)
      result.bytes_downloaded = *bytes_after - *bytes_before;
    result.time = std::time(nullptr);
    result.version_after = version_after();
  };
  try {
    work();
  } catch (const std::exception& e) {
    result.outcome = "failed";
    result.message = e.what();
    finish();
    RecordLastResult(*lib.io, id, result);
    throw;
  }
  finish();
  result.ok = true;
  result.last_success_time = result.time;
  std::string line;
  std::tie(result.outcome, line) = describe(result.version_before, result.version_after);
  RecordLastResult(*lib.io, id, result);
  std::cout << id << ": " << line << std::endl;
}

// Runs `operation` on the one database named, or, as the library's
// all-database runs do, on every scheduled one until the first failure.
void ForEach(const Library& lib, const std::string& id,
             const std::function<void(const std::string&)>& operation) {
  if (id.empty()) {
    lib.MakeUpdate().OperateAllProjects(operation);
  } else {
    operation(id);
  }
}

// When the status file was last written; nullopt when there is none.
std::optional<std::filesystem::file_time_type> StatusWritten(const std::string& id) {
  std::error_code ec;
  auto when = std::filesystem::last_write_time(
      SystemPath("/var/lib/data_update/" + id + "/version.json"), ec);
  return ec ? std::nullopt : std::optional(when);
}

std::pair<std::string, std::string> DescribeUpdate(int before, int after) {
  if (before < 0)
    return {"installed", "installed " + VersionText(after)};
  if (after == before)
    return {"up to date", "up to date at " + VersionText(after)};
  return {"updated", "updated " + VersionText(before) + " -> " + VersionText(after)};
}

// What update, fix and force-install share: `id` ("" for all) is configured,
// a volume is recorded, the library's downloads suit this stderr and are
// counted, and the metrics file is written when the command ends, however.
struct Session {
  Session(const Args& args, const std::string& id)
      : output(args.verbose, isatty(STDERR_FILENO) == 1), update(lib.MakeUpdate()) {
    if (!id.empty())
      lib.RequireKnown(id);
    lib.RequireVolume();
  }
  ~Session() { WriteMetricsFile(lib); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const LastResultsFlush flush;  // first made, so last gone: after every record
  const Library lib;
  DownloadOutput output;
  dataupdate::Update update;
};

int ParseVersion(const std::string& text) {
  if (text.empty())
    return 0;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || value < INT_MIN || value > INT_MAX) {
    throw CliError(kExitUsage, "force-install: VERSION must be a whole number, got '" + text +
                                   "' (see 'veskdbud force-install --help')");
  }
  return static_cast<int>(value);
}

}  // namespace

std::string OneOrAll(const Args& args) {
  std::string id = args.Operand(0);
  if (!id.empty() && args.Has("--all")) {
    throw CliError(kExitUsage, args.command +
                                   ": give a database ID or --all, not both (see "
                                   "'veskdbud " +
                                   args.command + " --help')");
  }
  return id;
}

int RunUpdate(const Args& args) {
  const std::string id = OneOrAll(args);
  Session session(args, id);
  ForEach(session.lib, id, [&session](const std::string& db) {
    RunRecorded(session.lib, session.output, session.update, db, "update", DescribeUpdate,
                [&] { session.update.UpdateProject(db); });
  });
  return kExitOk;
}

int RunFix(const Args& args) {
  const std::string id = OneOrAll(args);
  Session session(args, id);
  ForEach(session.lib, id, [&session](const std::string& db) {
    // The library rewrites the status file exactly when it reinstalled.
    auto written_before = StatusWritten(db);
    const Describe describe = [&](int before, int after) -> std::pair<std::string, std::string> {
      if (before < 0)
        return {"installed", "installed " + VersionText(after)};
      if (StatusWritten(db) != written_before)
        return {"repaired", "repaired: reinstalled " + VersionText(after)};
      return {"intact", "files intact at " + VersionText(after)};
    };
    RunRecorded(
        session.lib, session.output, session.update, db, "fix", describe,
        [&] { session.update.FixProject(db); }, [&] { written_before = StatusWritten(db); });
  });
  return kExitOk;
}

int RunForceInstall(const Args& args) {
  std::string id = args.Operand(0);
  const int version = ParseVersion(args.Operand(1));
  Session session(args, id);
  const Describe describe = [](int before, int after) -> std::pair<std::string, std::string> {
    return {"installed",
            "installed " + VersionText(after) + " (forced; was " + VersionText(before) + ")"};
  };
  RunRecorded(session.lib, session.output, session.update, id, "force-install", describe,
              [&] { session.update.ForceInstall(id, version); });
  return kExitOk;
}

}  // namespace vesk::cli
