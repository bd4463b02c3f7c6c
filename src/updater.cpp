#include "dataupdate/updater.h"

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <cstdint>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "dataupdate/error.h"
#include "dataupdate/hook.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "log_sites.h"
#include "manifest.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

// Digesting is bound by the processor and the page cache; more threads than
// this only compete for the same memory bandwidth.
constexpr size_t kMaxDigestThreads = 4;

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

// The manifest of the release a strategy installed, from the digests the
// status calculation made: one producer per strategy.
using ManifestProducer = std::function<Manifest(const std::map<std::string, FileStatus>& statuses)>;

// A whole tree installed: its files are exactly those digested.
ManifestProducer WholeTreeManifest(const std::string& install_prefix) {
  return [install_prefix](const std::map<std::string, FileStatus>& statuses) {
    return ManifestFromStatuses(statuses, install_prefix);
  };
}

// A diff chain: the installed release's manifest with the chain's changes.
ManifestProducer ChainManifest(Manifest previous, std::set<std::string> modified,
                               const std::string& install_prefix) {
  return [previous = std::move(previous), modified = std::move(modified),
          install_prefix](const std::map<std::string, FileStatus>& statuses) {
    Manifest manifest = previous;
    for (const std::string& name : modified)
      manifest.erase(!name.empty() && name[0] == '/' ? name.substr(1) : name);
    for (auto& entry : ManifestFromStatuses(statuses, install_prefix))
      manifest[entry.first] = std::move(entry.second);
    return manifest;
  };
}

// What the in-order walk over one file finds: whether it is there and its
// digest, or the exception that querying or digesting it threw.
struct Outcome {
  bool exists = false;
  std::string digest;
  std::exception_ptr error;
};

// The outcomes of walking `names` below `root` in their order, as far as the
// walk goes: it ends at the first file that throws, and with `expected` also
// at the first file missing or not matching expected[i]. Files are queried in
// order, then digested on up to one thread per core, largest first: a file is
// digested by one thread from start to end, so a big file left to the end
// would keep one core busy while the other idles.
std::vector<Outcome> Walk(const std::vector<std::string>& names, const std::string& root,
                          const std::vector<const std::string*>* expected) {
  std::vector<Outcome> outcomes(names.size());
  std::vector<std::string> paths(names.size());
  std::vector<std::pair<std::uintmax_t, size_t>> jobs;  // (size, index)
  size_t end = names.size();
  for (size_t i = 0; i < end; ++i) {
    paths[i] = JoinPath(root, names[i]);
    try {
      outcomes[i].exists = Exists(paths[i]);  // a removed file has nothing to record
    } catch (...) {
      outcomes[i].error = std::current_exception();
      end = i + 1;
      break;
    }
    if (!outcomes[i].exists) {
      if (expected)
        end = i + 1;
      continue;
    }
    boost::system::error_code ec;  // a directory or a vanished file sorts as empty
    const std::uintmax_t size = fs::file_size(paths[i], ec);
    jobs.emplace_back(ec ? 0 : size, i);
  }
  outcomes.resize(end);
  std::stable_sort(jobs.begin(), jobs.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });

  // A file that ends the walk makes the files after it in name order moot.
  std::atomic<size_t> next{0};
  std::atomic<size_t> last{end};
  const auto ends_walk_at = [&last](size_t i) {
    size_t seen = last;
    while (i < seen && !last.compare_exchange_weak(seen, i)) {
    }
  };
  const auto work = [&] {
    for (size_t j = next++; j < jobs.size(); j = next++) {
      const size_t i = jobs[j].second;
      if (i > last)
        continue;
      try {
        outcomes[i].digest = DigestOf(paths[i]);
        if (expected && outcomes[i].digest != *(*expected)[i])
          ends_walk_at(i);
      } catch (...) {
        outcomes[i].error = std::current_exception();
        ends_walk_at(i);
      }
    }
  };
  const size_t workers = std::min(
      {jobs.size(), kMaxDigestThreads, static_cast<size_t>(std::thread::hardware_concurrency())});
  std::vector<std::thread> threads;
  try {
    for (size_t t = 1; t < workers; ++t)
      threads.emplace_back(work);
  } catch (const std::system_error&) {
    // Fewer helpers, or none: this thread digests what they would have.
  }
  work();
  for (std::thread& thread : threads)
    thread.join();
  outcomes.resize(last + 1 < end ? last + 1 : end);
  return outcomes;
}

// The prepared strategy replaces the installed files between the pre and post
// hooks; the status to record lists the files it modified with fresh digests.
// The stored manifest is removed before the files change and the new one is
// written after, before the caller writes the status: a run killed between
// leaves no manifest of the status's release, and the next run reinstalls.
// The update route logs the apply step, the repair route does not.
DatabaseStatus ApplyWithHooks(BaseStrategy& strategy, const std::string& id,
                              const RemoteInfo& remote_info, const std::string& install_prefix,
                              bool log_apply, const ManifestProducer& manifest_of) {
  const std::set<std::string> files = strategy.GetModifiedFiles();
  UpdateHook hook(id, files);
  hook.ExecPre();
  if (log_apply)
    log::Write(log::site::kApplyUpdate, id);
  RemoveStoredManifest(id);
  strategy.ApplyUpdate();
  hook.ExecPost();

  DatabaseStatus result;
  result.data_version = remote_info.data_version;
  result.last_fetch_time = remote_info.last_fetch_time;
  result.file_statuses = CalculateStatus(files, install_prefix);
  WriteStoredManifest(id, result.data_version, manifest_of(result.file_statuses));
  return result;
}

}  // namespace

std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files,
                                                  const std::string& root) {
  // The statuses of all files, or the exception of the first (in name order)
  // that throws: what digesting them one by one gives.
  const std::vector<std::string> names(files.begin(), files.end());
  std::vector<Outcome> outcomes = Walk(names, root, nullptr);
  std::map<std::string, FileStatus> statuses;
  for (size_t i = 0; i < outcomes.size(); ++i) {
    if (outcomes[i].error)
      std::rethrow_exception(outcomes[i].error);
    if (outcomes[i].exists)
      statuses.emplace_hint(statuses.end(), names[i], FileStatus{std::move(outcomes[i].digest)});
  }
  return statuses;
}

bool CheckStatus(const std::map<std::string, FileStatus>& statuses, const std::string& root) {
  std::vector<std::string> names;
  std::vector<const std::string*> expected;
  names.reserve(statuses.size());
  expected.reserve(statuses.size());
  for (const auto& [name, status] : statuses) {
    names.push_back(name);
    expected.push_back(&status.sha384_digest);
  }
  // Only the first failure in name order counts, and is logged.
  const std::vector<Outcome> outcomes = Walk(names, root, &expected);
  for (size_t i = 0; i < outcomes.size(); ++i) {
    if (outcomes[i].error)
      std::rethrow_exception(outcomes[i].error);
    const std::string path = JoinPath(root, names[i]);
    if (!outcomes[i].exists) {
      log::Write(log::site::kFileGone, path);
      return false;
    }
    if (outcomes[i].digest != *expected[i]) {
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
  // A diff chain starts from the installed release, which only its manifest
  // vouches for: without one the chain is not taken.
  std::optional<Manifest> installed;
  if (status.data_version >= 0)
    installed = ReadStoredManifest(id, status.data_version);
  // Diff first; only an UpdateError from its construction or preparation falls
  // back to the whole package.
  std::shared_ptr<BaseStrategy> strategy;
  ManifestProducer manifest_of;
  try {
    log::Write(log::site::kPrepareDiff, id);
    if (!installed)
      throw UpdateError("No sufficient diff patched");
    strategy = std::make_shared<DiffStrategy>(id, status, remote_info, diff_infos, volume,
                                              install_prefix, root_directory);
    strategy->PrepareUpdate();
    manifest_of = ChainManifest(*installed, strategy->GetModifiedFiles(), install_prefix);
  } catch (const UpdateError& e) {
    strategy =
        std::make_shared<FullStrategy>(id, remote_info, volume, install_prefix, root_directory);
    log::Write(log::site::kDiffFellBack, std::string(e.what()));
    log::Write(log::site::kPrepareFull, id);
    strategy->PrepareUpdate();
    manifest_of = WholeTreeManifest(install_prefix);
  }

  return ApplyWithHooks(*strategy, id, remote_info, install_prefix, true, manifest_of);
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
  // The status lists the files the last step wrote; the manifest, every file
  // of the release (missing, changed and extra files).
  const std::optional<Manifest> manifest = ReadStoredManifest(id_, status.data_version);
  if (manifest && CheckStatus(status.file_statuses, install_prefix_)) {
    std::set<std::string> verified;
    for (const auto& [name, file] : status.file_statuses) {
      const std::string relative = !name.empty() && name[0] == '/' ? name.substr(1) : name;
      const auto listed = manifest->find(relative);
      if (listed != manifest->end() && listed->second.sha384 == file.sha384_digest)
        verified.insert(relative);
    }
    if (ManifestMatchesTree(*manifest, install_prefix_, verified))
      return false;
  }
  log::Write(log::site::kFileCheckFailed, id_);
  return true;
}

DatabaseStatus Fixer::Fix() const {
  log::Write(log::site::kTryFix, id_);
  FullStrategy strategy(id_, remote_info_, volume_, install_prefix_, root_directory_);
  strategy.PrepareUpdate();
  return ApplyWithHooks(strategy, id_, remote_info_, install_prefix_, false,
                        WholeTreeManifest(install_prefix_));
}

}  // namespace vesk::dataupdate
