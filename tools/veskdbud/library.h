// The library's objects as the tool wires them, and the checks that every
// command makes before it asks the library for work.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/update.h"

namespace vesk::cli {

struct Library {
  Library();

  // The database IDs of the argument: {id} (checked to be configured) or,
  // for "", every configured database in configuration order.
  std::vector<std::string> Databases(const std::string& id) const;
  // Throws CliError(kExitUnknownDatabase) unless `id` is configured.
  void RequireKnown(const std::string& id) const;
  // The current volume; throws CliError(kExitNoVolume) when none is set.
  std::string RequireVolume() const;
  // An Update wired with a real Updater.
  dataupdate::Update MakeUpdate() const;
  // The installed version of `id` (-1: none), as the status file gives it.
  int InstalledVersion(const std::string& id) const;

  std::shared_ptr<dataupdate::IOUtils> io;
  std::shared_ptr<dataupdate::Config> config;
  std::shared_ptr<dataupdate::ServiceConfig> service;
  std::shared_ptr<dataupdate::InfoGetter> info;
};

// "-" for -1 (not installed), else the number.
std::string VersionText(int version);

}  // namespace vesk::cli
