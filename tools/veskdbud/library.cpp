#include "library.h"

#include <algorithm>
#include <optional>

#include "cli.h"
#include "dataupdate/updater.h"

namespace vesk::cli {

using namespace vesk::dataupdate;

Library::Library()
    : io(std::make_shared<IOUtils>()),
      config(std::make_shared<Config>(io)),
      service(std::make_shared<ServiceConfig>(config)),
      info(std::make_shared<InfoGetter>(io, service)) {}

void Library::RequireKnown(const std::string& id) const {
  const std::vector<std::string> ids = service->GetDatabaseIDs();
  if (std::find(ids.begin(), ids.end(), id) != ids.end())
    return;
  std::string known;
  for (const std::string& each : ids)
    known += (known.empty() ? "" : ", ") + each;
  throw CliError(kExitUnknownDatabase, "unknown database '" + id + "' (configured: " +
                                           (known.empty() ? "none" : known) + ")");
}

std::vector<std::string> Library::Databases(const std::string& id) const {
  if (id.empty())
    return service->GetDatabaseIDs();
  RequireKnown(id);
  return {id};
}

std::string Library::RequireVolume() const {
  std::string volume = service->GetCurVolume();
  if (volume.empty()) {
    throw CliError(kExitNoVolume,
                   "no volume holds the databases; run 'veskdbud init' or "
                   "'veskdbud volume mount PATH'");
  }
  return volume;
}

Update Library::MakeUpdate() const {
  return Update(std::make_shared<Updater>(), info, service);
}

int Library::InstalledVersion(const std::string& id) const {
  // A plain status file is read without its list of files, which a database
  // of many files makes long; anything else goes the full way, with its logs.
  if (const std::optional<int> version = info->QuickInstalledVersion(id))
    return *version;
  return info->GetDatabaseStatus(id).data_version;
}

std::string VersionText(int version) {
  return version < 0 ? "-" : std::to_string(version);
}

}  // namespace vesk::cli
