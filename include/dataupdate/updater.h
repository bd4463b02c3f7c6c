// The update engine's entry points: digest status of installed files
// (CalculateStatus, CheckStatus), one update of one database with the diff
// route first and the full route as fallback (Updater), and repair (Fixer).
//
// The three path strings are always, in this order: `volume` (base of
// "<volume>/@tmp/data_update"), `install_prefix` (the database's installed
// directory, to which file names are relative) and `root_directory` (the path
// whose file system the free-space rule measures).
#pragma once

#include <map>
#include <set>
#include <string>

#include "dataupdate/export.h"
#include "dataupdate/records.h"

namespace vesk::dataupdate {

// Digests of the listed files below `root`; files that do not exist are left out.
VESKDBUD_EXPORT std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files,
                                                                  const std::string& root);

// True when every listed file exists below `root` with the recorded digest.
// Stops (and logs) at the first file that is gone or differs.
VESKDBUD_EXPORT bool CheckStatus(const std::map<std::string, FileStatus>& statuses,
                                 const std::string& root);

class VESKDBUD_EXPORT Updater {
 public:
  virtual ~Updater();
  // Brings `id` from `status` to `remote_info`; returns the status to record.
  // Throws UpdateError (or what the full route throws) on failure.
  virtual DatabaseStatus Update(const std::string& id, const DatabaseStatus& status,
                                const RemoteInfo& remote_info,
                                const std::map<int, DiffInfo>& diff_infos,
                                const std::string& volume, const std::string& install_prefix,
                                const std::string& root_directory) const;
};

class VESKDBUD_EXPORT Fixer {
 public:
  Fixer(const std::string& id, const RemoteInfo& remote_info, const std::string& volume,
        const std::string& install_prefix, const std::string& root_directory);

  // True when the database was never installed or its files fail the check.
  virtual bool IsFixNeeded(const DatabaseStatus& status) const;
  // Reinstalls the whole package; returns the status to record.
  virtual DatabaseStatus Fix() const;

 private:
  std::string id_;
  RemoteInfo remote_info_;
  std::string volume_;
  std::string install_prefix_;
  std::string root_directory_;
};

}  // namespace vesk::dataupdate
