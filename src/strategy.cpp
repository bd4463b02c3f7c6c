#include "dataupdate/strategy.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>
#include <json/value.h>
#include <sqlite3.h>
#include <boost/filesystem.hpp>
#include <cstdint>
#include <fstream>
#include <future>
#include <memory>
#include <vector>

#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "file_copy.h"
#include "log_sites.h"
#include "package_binding.h"
#include "package_plan.h"
#include "staged_tree.h"
#include "vesk/root.h"
#include "vlib/vlibc.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

std::string TmpRoot(const std::string& volume) {
  return (NoexceptFormat("%s/@tmp/data_update") % volume).str();
}

std::string DiffPackagePath(const std::string& volume, const std::string& id, int version) {
  return (NoexceptFormat("%s/@tmp/data_update/%s_d%d") % volume % id % version).str();
}

// Left-overs of a run that was killed part-way must not leak into this one.
void FreshDirectory(const IOUtils& io, const std::string& path) {
  io.RmRf(path);
  io.VeskMkdir(path);
}

// Puts the prepared file `from` (in the temporary tree, removed afterwards) at
// the missing path `to`. With `may_move` (no other target takes its content
// from `from`), a regular file is moved when both are on one file system and
// `to` does not exist; anything else, or a move that fails, is copied,
// with the copy's errors.
void PlaceFile(const fs::path& from, const fs::path& to, bool may_move) {
  struct stat st;
  if (may_move && lstat(from.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
      renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return;
  }
  CopyFileContents(from.string(), to.string());
}

// Carries `plan` out in the staging tree `staging`: the planned names are
// unlinked there first (a link to the installed file is never written
// through), then each write is placed.
void WritePlan(const Plan& plan, const std::string& staging) {
  for (const auto& entry : plan) {
    const fs::path staged = fs::path(staging) / entry.first;
    if (fs::exists(fs::symlink_status(staged)))
      fs::remove(staged);
  }
  // Two names can share one prepared file ("a.b" and "a_b" flatten alike).
  std::map<std::string, int> readers;
  for (const auto& entry : plan) {
    if (entry.second.operation == ModifyInfo::kOverride)
      ++readers[entry.second.path];
  }
  for (const auto& [name, info] : plan) {
    if (info.operation != ModifyInfo::kOverride)
      continue;
    const fs::path staged = fs::path(staging) / name;
    fs::create_directories(staged.parent_path());
    PlaceFile(info.path, staged, readers[info.path] == 1);
  }
}

// Prepares the result of one step in the sum directory.
void Prepare(DiffStrategy& strategy, const PatchStep& step, const std::string& install_prefix) {
  IOUtils io;
  switch (step.kind) {
    case PatchStep::Kind::kCreate:
      io.CopyFile(step.input, step.prepared);
      return;
    case PatchStep::Kind::kDelete:
      return;
    case PatchStep::Kind::kUpdate:
      break;
  }
  // Boost reports "not found" through the error code too: only a status that
  // could not be determined at all is a failure.
  boost::system::error_code ec;
  const fs::file_status status = fs::status(step.prepared, ec);
  if (status.type() == fs::status_error)
    throw UpdateError("Fail to get exists info from " + step.prepared);
  if (status.type() == fs::file_not_found)
    io.CopyFile(install_prefix + step.name, step.prepared);
  if (step.decoder == PatchStep::Decoder::kVcdiff)
    strategy._DoVcPatch(step.prepared, step.input);
  else
    strategy._DoSqlitePatch(step.prepared, step.input);
}

}  // namespace

// ---------------------------------------------------------------- BaseStrategy

BaseStrategy::~BaseStrategy() = default;
void BaseStrategy::PrepareUpdate() {}
void BaseStrategy::ApplyUpdate() {}
std::set<std::string> BaseStrategy::GetModifiedFiles() const {
  return {};
}
long long BaseStrategy::GetDeltaSize() const {
  return 0;
}

bool BaseStrategy::_CheckDigest(const std::string& file, const std::string& digest) {
  std::fstream in(file, std::ios::in | std::ios::out);
  return GetSha384(in) == digest;
}

bool BaseStrategy::_IsSpaceEnough(const std::string& path, long long delta) {
  IOUtils io;
  auto [available, capacity] = io.GetFsSize(path);
  log::Write(log::site::kSpaceCapacity, static_cast<uintmax_t>(capacity));
  log::Write(log::site::kSpaceAvailable, static_cast<intmax_t>(available));
  log::Write(log::site::kSpaceDelta, static_cast<intmax_t>(delta));
  // The sum wraps like the 64-bit machine addition it has always been, without
  // the undefined behaviour of signed overflow.
  const auto sum = static_cast<std::int64_t>(static_cast<std::uint64_t>(available) +
                                             static_cast<std::uint64_t>(delta));
  const auto after = static_cast<double>(sum);
  return after / static_cast<double>(capacity) > 0.05;
}

void BaseStrategy::_ExtractTarballTo(const std::string& package, const std::string& dir) {
  ExtractBoundPackage(package, dir, nullptr);
}

// ---------------------------------------------------------------- FullStrategy

FullStrategy::FullStrategy(const std::string& id, const RemoteInfo& remote_info,
                           const std::string& volume, const std::string& install_prefix,
                           const std::string& root_directory)
    : id_(id),
      remote_info_(remote_info),
      volume_(volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

FullStrategy::~FullStrategy() {
  IOUtils io;
  if (!tarball_path_.empty()) {
    try {
      fs::remove(tarball_path_);
    } catch (const std::exception& e) {
      log::Write(log::site::kFullCleanTarballFailed, tarball_path_, std::string(e.what()));
    }
  }
  if (!extract_path_.empty()) {
    try {
      io.RmRf(extract_path_);
    } catch (const std::exception& e) {
      log::Write(log::site::kFullCleanTmpFailed, std::string(e.what()));
    }
  }
  try {
    io.RmRf(TmpRoot(volume_));
  } catch (const std::exception& e) {
    log::Write(log::site::kFullCleanTmpFailed, std::string(e.what()));
  }
}

void FullStrategy::PrepareUpdate() {
  IOUtils io;
  tarball_path_ = (NoexceptFormat("%s/@tmp/data_update/%s_%s") % volume_ % id_ %
                   std::to_string(remote_info_.data_version))
                      .str();
  io.VeskMkdir(TmpRoot(volume_));
  io.Download(tarball_path_, remote_info_.download_link);

  extract_path_ = (NoexceptFormat("%s/@tmp/data_update/%s_full") % volume_ % id_).str();
  FreshDirectory(io, extract_path_);
  const ExpectedBinding expected{id_, remote_info_.data_version, true, -1, false};
  ExtractBoundPackage(tarball_path_, extract_path_, &expected);
  _CalModifyInfo();

  io.VeskMkdir(install_prefix_);
  if (!_IsSpaceEnough(root_directory_, GetDeltaSize())) {
    throw UpdateError("Disk space is too low");
  }
}

void FullStrategy::_CalModifyInfo() {
  modify_infos_ = PlanFullPackage(extract_path_);
}

void FullStrategy::ApplyUpdate() {
  try {
    // The new tree is built whole beside the installed one and then takes its
    // place in one step; readers holding the use lock see one or the other.
    StagedTree tree(id_, install_prefix_);
    CheckTargetsInside(modify_infos_, tree.path());
    WritePlan(modify_infos_, tree.path());
    tree.Exchange();
  } catch (const std::exception& e) {
    throw UpdateError(std::string("Fail to full update: ") + e.what());
  }
}

std::set<std::string> FullStrategy::GetModifiedFiles() const {
  std::set<std::string> files;
  for (const auto& entry : modify_infos_)
    files.insert(entry.first);
  return files;
}

long long FullStrategy::GetDeltaSize() const {
  IOUtils io;
  return static_cast<long long>(io.GetSize(install_prefix_)) -
         static_cast<long long>(io.GetSize(extract_path_));
}

// ---------------------------------------------------------------- DiffStrategy

DiffStrategy::DiffStrategy(const std::string& database_id, const DatabaseStatus& status,
                           const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs,
                           const std::string& volume, const std::string& install_prefix,
                           const std::string& root_directory)
    : id_(database_id),
      status_(status),
      remote_(remote),
      diffs_(diffs),
      volume_(volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

DiffStrategy::~DiffStrategy() {
  IOUtils io;
  if (!sum_dir_.empty()) {
    try {
      io.RmRf(sum_dir_);
    } catch (const std::exception& e) {
      log::Write(log::site::kDiffClearSumFailed, std::string(e.what()));
    }
  }
  for (const auto& entry : delta_dirs_) {
    try {
      io.RmRf(entry.second);
    } catch (const std::exception& e) {
      log::Write(log::site::kDiffClearDeltaFailed, std::string(e.what()));
    }
  }
  for (const auto& entry : packages_) {
    try {
      io.RmRf(entry.second);
    } catch (const std::exception& e) {
      log::Write(log::site::kDiffClearPackageFailed, std::string(e.what()));
    }
  }
  // The whole temporary directory goes, as after the other strategies: every
  // strategy runs under "update_any.lock", so whatever else is in it was left
  // by a run that was killed (an extraction, a package), and would otherwise
  // stay on the volume until a whole-package update or a repair.
  try {
    io.RmRf(TmpRoot(volume_));
  } catch (const std::exception& e) {
    log::Write(log::site::kDiffClearPackageFailed, std::string(e.what()));
  }
}

bool DiffStrategy::_IsDiffUpdateAvailable() {
  const int local = status_.data_version;
  const int remote = remote_.data_version;
  if (local >= remote || diffs_.empty())
    return false;
  for (long long v = static_cast<long long>(local) + 1; v <= remote; ++v) {
    if (diffs_.count(static_cast<int>(v)) == 0)
      return false;
  }
  return true;
}

void DiffStrategy::PrepareUpdate() {
  IOUtils io;
  if (!_IsDiffUpdateAvailable())
    throw UpdateError("No sufficient diff patched");
  sum_dir_ = (NoexceptFormat("%s/@tmp/data_update/%s_sum") % volume_ % id_).str();
  FreshDirectory(io, sum_dir_);
  // Each version's package is fetched while the version before it is applied,
  // so a chain over a slow link waits for one download rather than all of
  // them. A fetch that fails fails its version, as a fetch in line would.
  const auto fetch = [this](int version) {
    return std::async(std::launch::async, [package = DiffPackagePath(volume_, id_, version),
                                           link = diffs_.at(version).download_link] {
      IOUtils().Download(package, link);
    });
  };
  const long long first = static_cast<long long>(status_.data_version) + 1;
  const long long last = remote_.data_version;
  std::future<void> ahead = fetch(static_cast<int>(first));
  for (long long v = first; v <= last; ++v) {
    const int version = static_cast<int>(v);
    ahead.get();
    packages_[version] = DiffPackagePath(volume_, id_, version);  // _DoDiffUpdateTo takes it
    if (v < last)
      ahead = fetch(version + 1);
    _DoDiffUpdateTo(version);
  }
  io.VeskMkdir(install_prefix_);
  if (!_IsSpaceEnough(root_directory_, GetDeltaSize())) {
    throw UpdateError("Disk space is too low");
  }
}

void DiffStrategy::_DoDiffUpdateTo(int version) {
  IOUtils io;
  const DiffInfo& diff = diffs_.at(version);
  const std::string number = std::to_string(version);
  const std::string package = DiffPackagePath(volume_, id_, version);
  const std::string delta_dir =
      (NoexceptFormat("%s/@tmp/data_update/%s_delta_%s") % volume_ % id_ % number).str();
  const bool fetched = packages_.count(version) != 0;
  packages_[version] = package;
  delta_dirs_[version] = delta_dir;

  FreshDirectory(io, delta_dir);
  if (!fetched)
    io.Download(package, diff.download_link);
  const ExpectedBinding expected{id_, version, false, version - 1, false};
  const PackageBinding binding = ExtractBoundPackage(package, delta_dir, &expected);

  const std::string index_path = delta_dir + "/patch_infos.json";
  Json::Value patch_infos;
  try {
    patch_infos = io.ReadJson(index_path);
  } catch (const Json::Exception&) {
    throw UpdateError("Fail to decode: " + index_path);
  }
  // Nothing of this version is applied unless all of it is acceptable.
  for (const PatchStep& step : PlanDiffVersion(patch_infos, index_path, delta_dir, install_prefix_,
                                               sum_dir_, modify_infos_)) {
    Prepare(*this, step, install_prefix_);
    modify_infos_[step.name] = step.Result();
  }
  if (version == remote_.data_version) {
    // The chain must end in the release the last package vouches for.
    std::map<std::string, bool> changed;
    for (const auto& [name, info] : modify_infos_)
      changed[name] = info.operation == ModifyInfo::kOverride;
    CheckChainLeadsToManifest(binding.manifest, changed, install_prefix_);
  }
  io.RmRf(package);  // not read again; the destructor would remove it anyway
}

void DiffStrategy::_PatchFile(const std::string& file_name, const std::string& operation,
                              const std::string& input_path) {
  const PatchStep step = PlanPatch(file_name, operation, input_path, sum_dir_);
  Prepare(*this, step, install_prefix_);
  modify_infos_[file_name] = step.Result();
}

void DiffStrategy::_DoVcPatch(const std::string& target, const std::string& delta) {
  IOUtils io;
  const std::string output = target + ".patchout";
  const std::string tool = platform::RootPath("/usr/vesk/sbin/veskdbudvcdiff");
  if (VLIBCExecl(tool.c_str(), 187, "decode", target.c_str(), output.c_str(), delta.c_str(),
                 static_cast<const char*>(nullptr)) != 0) {
    throw UpdateError("Fail to apply vcdiff on " + target);
  }
  io.CopyFile(output, target);
  if (::unlink(output.c_str()) != 0)
    throw UpdateError("Failt to delete " + output);
}

namespace {

// The SQL of a diff changes its own database only: attaching another file (also
// the way VACUUM INTO writes one) would let a package write any SQLite file or
// empty file on the system.
int OwnDatabaseOnly(void*, int action, const char*, const char*, const char*, const char*) {
  return action == SQLITE_ATTACH || action == SQLITE_DETACH ? SQLITE_DENY : SQLITE_OK;
}

}  // namespace

void DiffStrategy::_DoSqlitePatch(const std::string& database_file, const std::string& diff_file) {
  try {
    SQLite::Database db(database_file, SQLite::OPEN_READWRITE);
    sqlite3_set_authorizer(db.getHandle(), OwnDatabaseOnly, nullptr);
    // The file is a copy prepared aside and installed files are not synced:
    // SQLite's syncs would only write the copy to disk (all of it, at the
    // first commit). The rollback journal stays, so a failed change still
    // leaves the file as it was, but is kept between transactions: deleting or
    // truncating it has ext4 write it out first. The temporary area goes at
    // the end of the update. A write-ahead log, recorded in the file, stays.
    db.exec("PRAGMA synchronous = OFF");
    if (db.execAndGet("PRAGMA journal_mode").getString() == "delete")
      db.exec("PRAGMA journal_mode = PERSIST");
    SQLite::Transaction transaction(db);
    std::ifstream in(diff_file);
    // A missing input would otherwise commit an empty change as success.
    if (!in.is_open())
      throw std::runtime_error("cannot open " + diff_file);
    // Room for the pages a large change set dirties, so that SQLite seldom
    // spills them before the commit.
    db.exec("PRAGMA cache_size = -16384");
    std::string line;
    while (std::getline(in, line))
      db.exec(line);
    transaction.commit();
  } catch (const std::exception& e) {
    throw UpdateError((NoexceptFormat("Fail apply sql cmd: %s") % e.what()).str());
  }
}

long long DiffStrategy::GetDeltaSize() const {
  IOUtils io;
  long long delta = 0;
  for (const auto& [name, info] : modify_infos_) {
    // The key is tested as it stands, not joined with the install prefix.
    boost::system::error_code ec;
    if (fs::exists(name, ec))
      delta += static_cast<long long>(io.GetSize(name));
    delta -= static_cast<long long>(io.GetSize(info.path));
  }
  return delta;
}

void DiffStrategy::ApplyUpdate() {
  try {
    CheckTargetsInside(modify_infos_, install_prefix_);
    // The new release is the installed tree (hard links, so cheap) with the
    // prepared files put in place, exchanged with the installed tree in one
    // step.
    StagedTree tree(id_, install_prefix_);
    tree.LinkInstalledFiles();
    WritePlan(modify_infos_, tree.path());
    tree.Exchange();
  } catch (const std::exception& e) {
    throw UpdateError(std::string("Fail to diff update: ") + e.what());
  }
}

std::set<std::string> DiffStrategy::GetModifiedFiles() const {
  std::set<std::string> files;
  for (const auto& entry : modify_infos_)
    files.insert(entry.first);
  return files;
}

// ---------------------------------------------------------- ForceInstallByLink

ForceInstallByLink::ForceInstallByLink(const std::string& id, const std::string& download_link,
                                       const std::string& volume, const std::string& install_prefix,
                                       const std::string& root_directory)
    : ForceInstallByLink(id, download_link, 0, volume, install_prefix, root_directory) {
  any_version_ = true;
}

ForceInstallByLink::ForceInstallByLink(const std::string& id, const std::string& download_link,
                                       int data_version, const std::string& volume,
                                       const std::string& install_prefix,
                                       const std::string& root_directory)
    : id_(id),
      download_link_(download_link),
      volume_(volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory),
      data_version_(data_version),
      any_version_(false) {}

ForceInstallByLink::~ForceInstallByLink() {
  staged_.reset();  // an unexchanged staging tree and its record go
  IOUtils io;
  if (!tarball_path_.empty()) {
    try {
      fs::remove(tarball_path_);
    } catch (const std::exception& e) {
      log::Write(log::site::kForceCleanTarballFailed, tarball_path_, std::string(e.what()));
    }
  }
  try {
    io.RmRf(TmpRoot(volume_));
  } catch (const std::exception& e) {
    log::Write(log::site::kForceCleanTmpFailed, std::string(e.what()));
  }
}

void ForceInstallByLink::PrepareUpdate() {
  IOUtils io;
  tarball_path_ = (NoexceptFormat("%s/@tmp/data_update/%s_%s") % volume_ % id_ % "debug").str();
  io.VeskMkdir(TmpRoot(volume_));
  io.Download(tarball_path_, download_link_);
  io.VeskMkdir(install_prefix_);
  // Extracted whole beside the installed tree, as a full install is, so that
  // no file of another release stays.
  staged_ = std::make_unique<StagedTree>(id_, install_prefix_);
  const ExpectedBinding expected{id_, data_version_, true, -1, any_version_};
  ExtractBoundPackage(tarball_path_, staged_->path(), &expected);
  try {
    const fs::path base(staged_->path());
    for (fs::recursive_directory_iterator it(base), end; it != end; ++it) {
      if (!fs::is_directory(it->symlink_status()))
        files_.insert(it->path().lexically_relative(base).string());
    }
  } catch (const fs::filesystem_error& e) {
    throw UpdateError(std::string("Fail to calculate modify info: ") + e.what());
  }
}

void ForceInstallByLink::ApplyUpdate() {
  try {
    if (!staged_)
      throw UpdateError("nothing prepared");
    staged_->Exchange();
  } catch (const std::exception& e) {
    throw UpdateError(std::string("Fail to force install: ") + e.what());
  }
}

std::set<std::string> ForceInstallByLink::GetModifiedFiles() const {
  return files_;
}

}  // namespace vesk::dataupdate
