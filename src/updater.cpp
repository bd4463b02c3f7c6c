#include "dataupdate/updater.h"

#include <boost/filesystem.hpp>
#include <fstream>
#include <memory>

#include "dataupdate/error.h"
#include "dataupdate/hook.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "log_sites.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

// `root` / `name` with the v3 append: a name beginning with "/" is appended
// below `root`, never taken as a new root.
std::string JoinPath(const std::string& root, const std::string& name) {
  return (fs::path(root) / name).string();
}

// Throws the filesystem error for anything but a path that is not there.
bool Exists(const std::string& path) {
  const fs::file_status status = fs::status(path);
  return status.type() != fs::file_not_found && status.type() != fs::status_error;
}

// Opened for reading and writing on purpose: a file that cannot be opened so
// (a directory, a read-only file) yields the digest of a failed stream, which
// then does not match, instead of an error.
std::string DigestOf(const std::string& path) {
  std::fstream file(path);
  return GetSha384(file);
}

// The prepared strategy replaces the installed files between the pre and post
// hooks; the status to record lists the files it modified with fresh digests.
// The update route logs the apply step, the repair route does not.
DatabaseStatus ApplyWithHooks(BaseStrategy& strategy, const std::string& id,
                              const RemoteInfo& remote_info, const std::string& install_prefix,
                              bool log_apply) {
  const std::set<std::string> files = strategy.GetModifiedFiles();
  UpdateHook hook(id, files);
  hook.ExecPre();
  if (log_apply)
    log::Write(log::site::kApplyUpdate, id);
  strategy.ApplyUpdate();
  hook.ExecPost();

  DatabaseStatus result;
  result.data_version = remote_info.data_version;
  result.last_fetch_time = remote_info.last_fetch_time;
  result.file_statuses = CalculateStatus(files, install_prefix);
  return result;
}

}  // namespace

std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files,
                                                  const std::string& root) {
  std::map<std::string, FileStatus> statuses;
  for (const std::string& name : files) {
    const std::string path = JoinPath(root, name);
    if (!Exists(path))
      continue;  // removed by the update: nothing to record
    statuses.emplace(name, FileStatus{DigestOf(path)});
  }
  return statuses;
}

bool CheckStatus(const std::map<std::string, FileStatus>& statuses, const std::string& root) {
  for (const auto& [name, status] : statuses) {
    const std::string path = JoinPath(root, name);
    if (!Exists(path)) {
      log::Write(log::site::kFileGone, path);
      return false;
    }
    if (DigestOf(path) != status.sha384_digest) {
      log::Write(log::site::kDigestMismatch, path);
      return false;
    }
  }
  return true;
}

// ------------------------------------------------------------------- Updater

Updater::~Updater() = default;

DatabaseStatus Updater::Update(const std::string& id, const DatabaseStatus& status,
                               const RemoteInfo& remote_info,
                               const std::map<int, DiffInfo>& diff_infos, const std::string& volume,
                               const std::string& install_prefix,
                               const std::string& root_directory) const {
  // Diff first; only an UpdateError from its construction or preparation falls
  // back to the whole package.
  std::shared_ptr<BaseStrategy> strategy;
  try {
    log::Write(log::site::kPrepareDiff, id);
    strategy = std::make_shared<DiffStrategy>(id, status, remote_info, diff_infos, volume,
                                              install_prefix, root_directory);
    strategy->PrepareUpdate();
  } catch (const UpdateError& e) {
    strategy =
        std::make_shared<FullStrategy>(id, remote_info, volume, install_prefix, root_directory);
    log::Write(log::site::kDiffFellBack, std::string(e.what()));
    log::Write(log::site::kPrepareFull, id);
    strategy->PrepareUpdate();
  }

  return ApplyWithHooks(*strategy, id, remote_info, install_prefix, true);
}

// --------------------------------------------------------------------- Fixer

Fixer::Fixer(const std::string& id, const RemoteInfo& remote_info, const std::string& volume,
             const std::string& install_prefix, const std::string& root_directory)
    : id_(id),
      remote_info_(remote_info),
      volume_(volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

bool Fixer::IsFixNeeded(const DatabaseStatus& status) const {
  if (status.data_version == -1) {
    log::Write(log::site::kNeverInstalled, id_);
    return true;
  }
  if (CheckStatus(status.file_statuses, install_prefix_))
    return false;
  log::Write(log::site::kFileCheckFailed, id_);
  return true;
}

DatabaseStatus Fixer::Fix() const {
  log::Write(log::site::kTryFix, id_);
  FullStrategy strategy(id_, remote_info_, volume_, install_prefix_, root_directory_);
  strategy.PrepareUpdate();
  return ApplyWithHooks(strategy, id_, remote_info_, install_prefix_, false);
}

}  // namespace vesk::dataupdate
