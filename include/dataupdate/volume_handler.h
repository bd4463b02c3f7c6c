// VolumeHandler: chooses the volume that holds the databases
// ("<volume>/@database/autoupdate"), adopts a newly mounted volume when none is
// set, and moves the databases when the current volume is about to leave (or
// clears the current volume, which turns automatic updates off).
//
// The three event operations never throw; they log. FindSuitableVolume,
// CreateDirectories and IsSuitable throw UpdateError or std::runtime_error.
#pragma once

#include <memory>
#include <string>

#include "dataupdate/config.h"
#include "dataupdate/export.h"

namespace vesk::dataupdate {

class VESKDBUD_EXPORT VolumeHandler {
 public:
  explicit VolumeHandler(std::shared_ptr<ServiceConfig> config);
  virtual ~VolumeHandler();

  virtual void InitVolume() const;
  virtual void UnmountVolumeEvent(const std::string& mount_path) const;
  virtual void MountVolumeEvent(const std::string& mount_path) const;
  // A suitable volume's mount path other than `excluded_path`.
  virtual std::string FindSuitableVolume(std::string excluded_path) const;
  virtual std::string GetMainDirPath(const std::string& volume_path) const;
  virtual void CreateDirectories(const std::string& path) const;
  // `record` is the platform's volume record; a negative `required_bytes` asks
  // for the sum of every database's reserved space.
  virtual bool IsSuitable(const void* record, long long required_bytes) const;

 private:
  long long RequiredSpace() const;

  std::shared_ptr<ServiceConfig> config_;
};

}  // namespace vesk::dataupdate
