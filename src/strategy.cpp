#include "dataupdate/strategy.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>
#include <json/value.h>
#include <sqlite3.h>
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "file_copy.h"
#include "log_sites.h"
#include "package_binding.h"
#include "staged_tree.h"
#include "vesk/root.h"
#include "vlib/vlibc.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

std::string TmpRoot(const std::string& volume) {
  return (NoexceptFormat("%s/@tmp/data_update") % volume).str();
}

// Left-overs of a run that was killed part-way must not leak into this one.
void FreshDirectory(const IOUtils& io, const std::string& path) {
  io.RmRf(path);
  io.VeskMkdir(path);
}

// ------------------------------------------------ names from a package's index

// A name as messages show it: control bytes and "\" escaped, at most 200 bytes.
std::string Shown(const std::string& name) {
  constexpr size_t kLimit = 200;
  std::string shown;
  for (size_t i = 0; i < name.size() && i < kLimit; ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7f || c == '\\') {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      shown += hex;
    } else {
      shown += static_cast<char>(c);
    }
  }
  return name.size() > kLimit ? shown + "..." : shown;
}

std::vector<std::string> Components(const std::string& relative) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    const size_t end = relative.find('/', start);
    parts.push_back(relative.substr(start, end == std::string::npos ? end : end - start));
    if (end == std::string::npos)
      return parts;
    start = end + 1;
  }
}

enum class NameProblem { kNone, kNul, kTooLong, kBadComponent };

// Whether `relative` names something strictly below a directory by plain
// components: no NUL, no empty, "." or ".." component, within NAME_MAX per
// component and PATH_MAX in all.
NameProblem CheckRelativeName(const std::string& relative) {
  if (relative.find('\0') != std::string::npos)
    return NameProblem::kNul;
  if (relative.size() >= PATH_MAX)
    return NameProblem::kTooLong;
  bool too_long = false;
  for (const std::string& part : Components(relative)) {
    if (part.empty() || part == "." || part == "..")
      return NameProblem::kBadComponent;
    too_long = too_long || part.size() > NAME_MAX;
  }
  return too_long ? NameProblem::kTooLong : NameProblem::kNone;
}

// Whether `path`, with every link in its existing part resolved, lies inside
// the directory `base` (itself resolved). Missing trailing parts are taken as
// they are written; they hold no ".." (the names were checked first).
bool ResolvesInside(const std::string& path, const std::string& base) {
  boost::system::error_code ec;
  const fs::path root = fs::weakly_canonical(base, ec);
  if (ec)
    return false;
  const fs::path resolved = fs::weakly_canonical(path, ec);
  if (ec)
    return false;
  const auto parts = [](const fs::path& p) {
    std::vector<std::string> names;
    for (const fs::path& part : p) {
      if (part != "." && !part.empty())
        names.push_back(part.string());
    }
    return names;
  };
  const std::vector<std::string> outer = parts(root);
  const std::vector<std::string> inner = parts(resolved);
  return inner.size() > outer.size() && std::equal(outer.begin(), outer.end(), inner.begin());
}

// Before ApplyUpdate writes or removes anything: every target lies inside the
// install directory, also through links already there.
void CheckTargetsInside(const std::map<std::string, ModifyInfo>& infos,
                        const std::string& install_prefix) {
  for (const auto& entry : infos) {
    const std::string& name = entry.first;
    const std::string relative = !name.empty() && name[0] == '/' ? name.substr(1) : name;
    const std::string target = (fs::path(install_prefix) / name).string();
    if (CheckRelativeName(relative) != NameProblem::kNone ||
        !ResolvesInside(target, install_prefix)) {
      throw UpdateError("Refused to write outside the install directory: " + Shown(target));
    }
  }
}

// Every entry of one version's "patch_infos.json", checked before any of them
// is applied: an object of objects with string "operation" and "input_file";
// a name that begins with "/" and stays below the install directory, also
// through links; for "create" and "update", an input that is a regular file
// below the extracted package; and no two names sharing one temporary file.
void CheckPatchInfos(const Json::Value& patch_infos, const std::string& index_path,
                     const std::string& delta_dir, const std::string& install_prefix,
                     const std::map<std::string, ModifyInfo>& earlier) {
  if (!patch_infos.isObject())
    throw UpdateError("Invalid patch infos: " + index_path);
  std::map<std::string, std::string> flat_owner;
  for (const auto& entry : earlier)
    flat_owner.emplace(FlatFileName(entry.first), entry.first);

  for (const std::string& name : patch_infos.getMemberNames()) {
    const auto refuse = [&name](const std::string& reason) {
      return UpdateError("Invalid patch info for " + Shown(name) + ": " + reason);
    };
    const Json::Value& info = patch_infos[name];
    if (!info.isObject())
      throw refuse("not an object");
    if (!info["operation"].isString())
      throw refuse("\"operation\" is not a string");
    if (!info["input_file"].isString())
      throw refuse("\"input_file\" is not a string");

    if (name.find('\0') != std::string::npos)
      throw refuse("NUL in the name");
    if (name.empty() || name[0] != '/')
      throw refuse("the name must begin with \"/\"");
    switch (install_prefix.size() + name.size() >= PATH_MAX ? NameProblem::kTooLong
                                                            : CheckRelativeName(name.substr(1))) {
      case NameProblem::kNone:
        break;
      case NameProblem::kNul:
        throw refuse("NUL in the name");
      case NameProblem::kTooLong:
        throw refuse("name longer than the system allows");
      case NameProblem::kBadComponent:
        throw refuse("empty, \".\" or \"..\" component in the name");
    }
    if (!ResolvesInside(install_prefix + name, install_prefix))
      throw refuse("it leads outside the install directory through a link");

    const std::string operation = info["operation"].asString();
    if (operation == "create" || operation == "update") {
      const std::string input = info["input_file"].asString();
      if (input.empty() || input[0] == '/' || CheckRelativeName(input) != NameProblem::kNone ||
          delta_dir.size() + 1 + input.size() >= PATH_MAX) {
        throw refuse("\"input_file\" must be a relative name inside the package");
      }
      std::string walked = delta_dir;
      for (const std::string& part : Components(input)) {
        walked += "/" + part;
        struct stat st;
        const bool last = walked.size() == delta_dir.size() + 1 + input.size();
        if (lstat(walked.c_str(), &st) != 0 || S_ISLNK(st.st_mode) ||
            (last ? !S_ISREG(st.st_mode) : !S_ISDIR(st.st_mode))) {
          throw refuse("\"input_file\" is not a regular file in the package");
        }
      }
    }

    const auto [owner, added] = flat_owner.emplace(FlatFileName(name), name);
    if (!added && owner->second != name)
      throw refuse("its temporary file is also that of " + Shown(owner->second));
  }
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
  IOUtils io;
  try {
    const fs::path base = fs::canonical(extract_path_);
    io.IterateDirectory(
        extract_path_,
        [&](const std::string& path) {
          if (!fs::is_regular_file(fs::status(path)))
            return;
          const fs::path file = fs::canonical(path);
          const fs::path relative = file.lexically_relative(base);
          if (relative.empty() || *relative.begin() == "..")
            throw UpdateError("path not in base");
          modify_infos_[relative.string()] = ModifyInfo{ModifyInfo::kOverride, path};
        },
        true);
  } catch (const std::exception& e) {
    throw UpdateError(std::string("Fail to calculate modify info: ") + e.what());
  }
}

void FullStrategy::ApplyUpdate() {
  bool not_override = false;
  try {
    // The new tree is built whole beside the installed one and then takes its
    // place in one step; readers holding the use lock see one or the other.
    StagedTree tree(id_, install_prefix_);
    CheckTargetsInside(modify_infos_, tree.path());
    for (const auto& [name, info] : modify_infos_) {
      if (info.operation != ModifyInfo::kOverride) {
        not_override = true;
        break;
      }
      const fs::path target = fs::path(tree.path()) / name;
      fs::create_directories(target.parent_path());
      PlaceFile(info.path, target, true);  // one target per extracted file
    }
    if (!not_override)
      tree.Exchange();
  } catch (const std::exception& e) {
    throw UpdateError(std::string("Fail to full update: ") + e.what());
  }
  if (not_override)
    throw UpdateError("operation not set to override");
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
  for (long long v = static_cast<long long>(status_.data_version) + 1; v <= remote_.data_version;
       ++v) {
    _DoDiffUpdateTo(static_cast<int>(v));
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
  const std::string package =
      (NoexceptFormat("%s/@tmp/data_update/%s_%s") % volume_ % id_ % ("d" + number)).str();
  const std::string delta_dir =
      (NoexceptFormat("%s/@tmp/data_update/%s_delta_%s") % volume_ % id_ % number).str();
  packages_[version] = package;
  delta_dirs_[version] = delta_dir;

  FreshDirectory(io, delta_dir);
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
  CheckPatchInfos(patch_infos, index_path, delta_dir, install_prefix_, modify_infos_);
  for (const std::string& name : patch_infos.getMemberNames()) {
    const Json::Value& entry = patch_infos[name];
    _PatchFile(name, entry["operation"].asString(),
               delta_dir + "/" + entry["input_file"].asString());
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
  IOUtils io;
  const std::string sum_path = sum_dir_ + "/" + FlatFileName(file_name);
  const std::string installed_path = install_prefix_ + file_name;

  if (operation == "create") {
    io.CopyFile(input_path, sum_path);
    modify_infos_[file_name] = ModifyInfo{ModifyInfo::kOverride, sum_path};
  } else if (operation == "update") {
    // Boost reports "not found" through the error code too: only a status that
    // could not be determined at all is a failure.
    boost::system::error_code ec;
    const fs::file_status status = fs::status(sum_path, ec);
    if (status.type() == fs::status_error) {
      throw UpdateError("Fail to get exists info from " + sum_path);
    }
    if (status.type() == fs::file_not_found)
      io.CopyFile(installed_path, sum_path);

    const std::string extension = fs::path(input_path).extension().string();
    if (extension == ".vcdiff") {
      _DoVcPatch(sum_path, input_path);
    } else if (extension == ".sqlitediff") {
      _DoSqlitePatch(sum_path, input_path);
    } else {
      throw UpdateError("Unsupported diff type: " + extension);
    }
    modify_infos_[file_name] = ModifyInfo{ModifyInfo::kOverride, sum_path};
  } else if (operation == "delete") {
    modify_infos_[file_name] = ModifyInfo{ModifyInfo::kDelete, sum_path};
  } else {
    throw UpdateError(
        (NoexceptFormat("Unknown operation %s for file %s") % operation % file_name).str());
  }
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
    SQLite::Transaction transaction(db);
    std::ifstream in(diff_file);
    // A missing input would otherwise commit an empty change as success.
    if (!in.is_open())
      throw std::runtime_error("cannot open " + diff_file);
    // Room for the pages a large change set dirties, so that SQLite seldom
    // spills them (each spill syncs the journal) before the commit. The
    // journal and its syncs at the commit are as configured.
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
    for (const auto& entry : modify_infos_) {
      const fs::path staged = fs::path(tree.path()) / entry.first;
      if (fs::exists(fs::symlink_status(staged)))
        fs::remove(staged);  // a link to the installed file: never written through
    }
    // Two names can share one prepared file ("a.b" and "a_b" flatten alike).
    std::map<std::string, int> readers;
    for (const auto& entry : modify_infos_) {
      if (entry.second.operation == ModifyInfo::kOverride)
        ++readers[entry.second.path];
    }
    for (const auto& [name, info] : modify_infos_) {
      if (info.operation != ModifyInfo::kOverride)
        continue;
      const fs::path staged = fs::path(tree.path()) / name;
      fs::create_directories(staged.parent_path());
      PlaceFile(info.path, staged, readers[info.path] == 1);
    }
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
