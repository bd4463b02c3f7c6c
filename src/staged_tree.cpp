#include "staged_tree.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>

#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "journal.h"
#include "log_sites.h"
#include "unique_fd.h"
#include "vesk/root.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

constexpr unsigned int kUsingLockTimeout = 600;

std::string UsingLockPath(const std::string& id) {
  return platform::RootPath((NoexceptFormat("/run/data_update/using_%s.lock") % id).str());
}

std::string Trimmed(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  return path;
}

std::string Sibling(const std::string& install, const std::string& suffix) {
  const fs::path path(install);
  return (path.parent_path() / ("." + path.filename().string() + suffix)).string();
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

void SyncParent(const std::string& path) {
  UniqueFd dir(open(fs::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir)
    static_cast<void>(fsync(dir.get()));
}

void RenameOrThrow(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
    throw UpdateError(
        (NoexceptFormat("Fail to rename %s to %s: %s") % from % to % std::strerror(errno)).str());
  }
}

Json::Value TreeRecord(const std::string& id, const std::string& install,
                       const std::string& staging, const std::string& old, const char* state) {
  Json::Value record(Json::objectValue);
  record["id"] = id;
  record["install"] = install;
  record["staging"] = staging;
  record["old"] = old;
  record["state"] = state;
  return record;
}

}  // namespace

StagedTree::StagedTree(std::string id, std::string install_prefix)
    : id_(std::move(id)),
      install_(Trimmed(std::move(install_prefix))),
      staging_(Sibling(install_, ".staging")),
      old_(Sibling(install_, ".old")) {
  IOUtils io;
  journal::Write("tree_" + id_, TreeRecord(id_, install_, staging_, old_, "building"));
  io.RmRf(staging_);
  io.RmRf(old_);
  io.VeskMkdir(staging_);
}

StagedTree::~StagedTree() {
  if (exchanged_)
    return;
  try {
    IOUtils().RmRf(staging_);
    journal::Remove("tree_" + id_);
  } catch (const std::exception& e) {
    log::Write(log::site::kJournalFailed, "tree_" + id_, std::string(e.what()));
  }
}

void StagedTree::LinkInstalledFiles() const {
  try {
    const fs::path base(install_);
    for (fs::recursive_directory_iterator it(base), end; it != end; ++it) {
      const fs::path target = fs::path(staging_) / it->path().lexically_relative(base);
      const fs::file_status status = it->symlink_status();
      if (fs::is_directory(status)) {
        fs::create_directory(target);
      } else if (fs::is_symlink(status)) {
        fs::copy_symlink(it->path(), target);
      } else {
        fs::create_hard_link(it->path(), target);
      }
    }
  } catch (const fs::filesystem_error& e) {
    throw UpdateError(std::string("Fail to stage the installed files: ") + e.what());
  }
}

void StagedTree::Exchange() {
  {
    FileLock lock(UsingLockPath(id_), kUsingLockTimeout);
    if (!Exists(install_)) {
      RenameOrThrow(staging_, install_);
    } else if (renameat2(AT_FDCWD, staging_.c_str(), AT_FDCWD, install_.c_str(), RENAME_EXCHANGE) !=
               0) {
      if (errno != EINVAL && errno != ENOSYS) {
        throw UpdateError((NoexceptFormat("Fail to exchange %s with %s: %s") % staging_ % install_ %
                           std::strerror(errno))
                              .str());
      }
      // Two renames, with the install directory missing in between: the
      // record says the staging tree is whole, so a killed run is completed.
      journal::Write("tree_" + id_, TreeRecord(id_, install_, staging_, old_, "ready"));
      RenameOrThrow(install_, old_);
      RenameOrThrow(staging_, install_);
    }
    SyncParent(install_);
  }
  exchanged_ = true;
  IOUtils io;
  io.RmRf(staging_);  // the old tree, after an exchange
  io.RmRf(old_);
  journal::Remove("tree_" + id_);
}

void RemoveNonDirectory(const std::string& install_prefix) {
  const std::string install = Trimmed(install_prefix);
  struct stat st;
  if (stat(install.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
    log::Write(log::site::kInstallNotADirectory, install);
    if (::unlink(install.c_str()) != 0)
      throw UpdateError("Fail to remove all: " + install);
  }
}

void RecoverStagedTrees() {
  for (const std::string& name : journal::Names("tree_")) {
    try {
      const std::optional<Json::Value> record = journal::Read(name);
      if (record) {
        const std::string install = (*record)["install"].asString();
        const std::string staging = (*record)["staging"].asString();
        const std::string old = (*record)["old"].asString();
        if ((*record)["state"].asString() == "ready" && !Exists(install) && Exists(staging)) {
          RenameOrThrow(staging, install);
          SyncParent(install);
          log::Write(log::site::kJournalCompleted, "exchange of " + install);
        } else {
          log::Write(log::site::kJournalUndone, "staging of " + install);
        }
        IOUtils io;
        io.RmRf(staging);
        io.RmRf(old);
      }
      journal::Remove(name);
    } catch (const std::exception& e) {
      log::Write(log::site::kJournalFailed, name, std::string(e.what()));
    }
  }
}

}  // namespace vesk::dataupdate
