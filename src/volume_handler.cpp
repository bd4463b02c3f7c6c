#include "dataupdate/volume_handler.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "journal.h"
#include "log_sites.h"
#include "unique_fd.h"
#include "vesk/mount_vol.h"
#include "vlib/vlibc.h"
#include "volume_move.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

struct VolumeListFree {
  void operator()(VESKVolInfo* list) const { VESKMountVolInfoFree(list); }
};
using VolumeList = std::unique_ptr<VESKVolInfo, VolumeListFree>;

constexpr char kMoveRecord[] = "volume_move";

bool Exists(const std::string& path) {
  boost::system::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

// The copy is made under a temporary name on the new volume, flushed there,
// and only then renamed into place and recorded: a partial copy never carries
// the main directory's name. The old copy goes last.
void CopyThenSwitch(ServiceConfig& config, Json::Value record) {
  const std::string from = record["from"].asString();
  const std::string to = record["to"].asString();
  const std::string temp = record["temp"].asString();
  if (record["state"].asString() != "copied") {
    IOUtils().RmRf(temp);
    if (Exists(from)) {
      // cp, not mv: mv between file systems removes the source as it goes, so
      // a killed move would leave two partial copies.
      if (VLIBCExec("/bin/cp", "-aT", from.c_str(), temp.c_str(), nullptr) < 0)
        throw std::runtime_error("Failed to move databases.");
    } else {
      fs::create_directories(temp);
    }
    UniqueFd dir(open(temp.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir || syncfs(dir.get()) != 0)
      throw std::runtime_error("Failed to move databases.");
    record["state"] = "copied";
    journal::Write(kMoveRecord, record);
  }
  if (Exists(temp) && !Exists(to) && std::rename(temp.c_str(), to.c_str()) != 0)
    throw std::runtime_error("Failed to move databases.");
  config.SetCurVolume(record["to_volume"].asString());
  IOUtils().RmRf(from);
  journal::Remove(kMoveRecord);
}

}  // namespace

void ResumeVolumeMove(ServiceConfig& config) {
  const std::optional<Json::Value> record = journal::Read(kMoveRecord);
  if (!record)
    return;
  const std::string what =
      "move of " + (*record)["from"].asString() + " to " + (*record)["to"].asString();
  try {
    const bool copied = (*record)["state"].asString() == "copied";
    // A copy cut short is made again while the old one is there to copy.
    if (copied || Exists((*record)["from"].asString())) {
      CopyThenSwitch(config, *record);
      log::Write(log::site::kJournalCompleted, what);
    } else {
      IOUtils().RmRf((*record)["temp"].asString());
      journal::Remove(kMoveRecord);
      log::Write(log::site::kJournalUndone, what);
    }
  } catch (const std::exception& e) {
    log::Write(log::site::kJournalFailed, what, std::string(e.what()));
  }
}

VolumeHandler::VolumeHandler(std::shared_ptr<ServiceConfig> config) : config_(std::move(config)) {}

VolumeHandler::~VolumeHandler() = default;

long long VolumeHandler::RequiredSpace() const {
  long long total = 0;
  for (const std::string& id : config_->GetDatabaseIDs()) {
    const std::uint64_t reserved = config_->GetDatabaseConfig(id)->GetMinReservedSpaceInbytes();
    if (reserved > static_cast<std::uint64_t>(std::numeric_limits<long long>::max() - total)) {
      throw std::runtime_error("Overflow detection, this may be caused by invalid configurations.");
    }
    total += static_cast<long long>(reserved);
  }
  return total;
}

bool VolumeHandler::IsSuitable(const void* record, long long required_bytes) const {
  if (required_bytes < 0)
    required_bytes = RequiredSpace();
  const VESKVolInfo info = *static_cast<const VESKVolInfo*>(record);
  if ((info.flags & VESK_VOL_FLAG_RW) == 0)
    return false;
  if (VESKVolumeServicePolicy(&info) == 0)
    return false;
  if (info.avail_bytes < static_cast<unsigned long long>(required_bytes))
    return false;
  return info.mounted != 0 && info.stat_ready != 0;
}

std::string VolumeHandler::FindSuitableVolume(std::string excluded_path) const {
  const long long required = RequiredSpace();
  VolumeList list(VESKMountVolAllEnum(0, 1));
  // An empty list is reported as NULL with no error: nothing is suitable then.
  if (!list && VLIBCErrGet() != 0) {
    throw UpdateError((NoexceptFormat("Failed to enum all volumes: %x") % VLIBCErrGet()).str());
  }
  for (const VESKVolInfo* volume = list.get(); volume != nullptr; volume = volume->next) {
    if (excluded_path != volume->mount_path && IsSuitable(volume, required)) {
      return volume->mount_path;
    }
  }
  throw UpdateError("Cannot find suitable volume.");
}

std::string VolumeHandler::GetMainDirPath(const std::string& volume_path) const {
  return (NoexceptFormat("%s/@database/autoupdate") % volume_path).str();
}

void VolumeHandler::CreateDirectories(const std::string& path) const {
  boost::system::error_code ec;
  fs::create_directories(path, ec);
  if (ec) {
    throw UpdateError((NoexceptFormat("Failed to create '%s': %s") % path % ec.message()).str());
  }
}

void VolumeHandler::InitVolume() const {
  ResumeVolumeMove(*config_);
  try {
    if (!config_->GetCurVolume().empty())
      return;
    const std::string volume = FindSuitableVolume("");
    CreateDirectories(GetMainDirPath(volume));
    config_->SetCurVolume(volume);
    log::Write(log::site::kVolumeSet, volume);
  } catch (const UpdateError& e) {
    log::Write(log::site::kInitVolumeFailed, std::string(e.what()));
  } catch (const std::exception& e) {
    log::Write(log::site::kInitVolumeError, std::string(e.what()));
  }
}

void VolumeHandler::MountVolumeEvent(const std::string& mount_path) const {
  ResumeVolumeMove(*config_);
  try {
    if (!config_->GetCurVolume().empty()) {
      log::Write(log::site::kMountIgnored, mount_path);
      return;
    }
    VESKVolInfo info{};
    if (VESKMountVolInfoGet(mount_path.c_str(), &info) == -1) {
      log::Write(log::site::kVolumeInfoFailed, mount_path);
      return;
    }
    const std::string main_dir = GetMainDirPath(mount_path);
    if (!IsSuitable(&info, -1))
      return;
    CreateDirectories(main_dir);
    config_->SetCurVolume(mount_path);
  } catch (const std::exception& e) {
    log::Write(log::site::kMountFailed, mount_path, std::string(e.what()));
  }
}

void VolumeHandler::UnmountVolumeEvent(const std::string& mount_path) const {
  ResumeVolumeMove(*config_);
  try {
    const std::string current = config_->GetCurVolume();
    if (current != mount_path) {
      log::Write(log::site::kUnmountIgnored, mount_path);
      return;
    }
    // From here on automatic updates are off until another volume is recorded.
    config_->SetCurVolume("");
    const std::string new_volume = FindSuitableVolume(mount_path);
    const std::string old_main = GetMainDirPath(current);
    const std::string new_main = GetMainDirPath(new_volume);
    log::Write(log::site::kMovingDatabases, old_main, new_main);

    if (fs::exists(fs::symlink_status(new_main)))
      fs::remove(new_main);
    const std::string parent = new_main.substr(0, new_main.rfind('/'));
    CreateDirectories(parent);
    Json::Value record(Json::objectValue);
    record["from"] = old_main;
    record["to"] = new_main;
    record["temp"] = parent + "/.autoupdate.moving";
    record["to_volume"] = new_volume;
    record["state"] = "copying";
    journal::Write(kMoveRecord, record);
    CopyThenSwitch(*config_, record);
  } catch (const UpdateError& e) {
    log::Write(log::site::kUpdatesDisabled, std::string(e.what()));
  } catch (const std::exception& e) {
    log::Write(log::site::kUnmountFailed, std::string(e.what()));
  }
}

}  // namespace vesk::dataupdate
