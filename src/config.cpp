#include "dataupdate/config.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "json_read.h"
#include "vesk/root.h"

namespace vesk::dataupdate {
namespace {

using platform::RootPath;

constexpr char kConfigLock[] = "/run/data_update/config.lock";
constexpr unsigned int kConfigLockTimeout = 600;

constexpr char kServiceDefault[] = "/usr/share/data_update/data_update.conf";
constexpr char kServiceLocal[] = "/usr/vesk/etc/data_update/data_update.conf";
constexpr char kDatabasesDefault[] = "/usr/share/data_update/databases.conf";
constexpr char kDatabasesLocal[] = "/usr/vesk/etc/data_update/databases.conf";

constexpr char kServiceSection[] = "config";

constexpr char kOnVolume[] = "%VOLUME%";
constexpr char kOnRootfs[] = "%ROOTFS%";
constexpr char kVolumeDatabases[] = "%s/@database/autoupdate";

// Const member access: a missing section or key reads as null and nothing is
// added to `root`. A file or a section that is not an object has no keys (the
// JSON library's const operator[] would throw on it).
const Json::Value& Lookup(const Json::Value& root, const std::string& section,
                          const std::string& key) {
  static const Json::Value kNull;
  if (!root.isObject())
    return kNull;
  const Json::Value& members = root[section];
  return members.isObject() ? members[key] : kNull;
}

// A configuration file as the JSON library reads it, nullptr when it does not
// exist; one it gives up on (such as nesting deeper than it allows) is
// undecodable like any other.
std::shared_ptr<const Json::Value> ReadDocument(const IOUtils& io, const std::string& path) {
  try {
    return ReadJsonShared(io, path);
  } catch (const Json::Exception&) {
    throw UpdateError("Fail to decode: " + path);
  }
}

std::shared_ptr<const Json::Value> ReadExisting(const IOUtils& io, const std::string& path) {
  auto document = ReadDocument(io, path);
  if (!document)
    throw UpdateError("File not exist: " + path, UpdateError::kFileNotExist);
  return document;
}

// A file whose top level is not an object holds no sections.
std::shared_ptr<const Json::Value> ReadSections(const IOUtils& io, const std::string& path) {
  auto root = ReadExisting(io, path);
  if (!root->isObject())
    throw UpdateError("Fail to decode: " + path);
  return root;
}

Json::Value ToJson(const std::string& value) {
  return Json::Value(value);
}
Json::Value ToJson(unsigned long long value) {
  return Json::Value(static_cast<Json::UInt64>(value));
}
Json::Value ToJson(bool value) {
  return Json::Value(value);
}

}  // namespace

Config::Config(std::shared_ptr<IOUtils> io) : io_(std::move(io)) {}

Config::~Config() = default;

void Config::Init(const std::string& default_path, const std::string& local_path) {
  default_path_ = default_path;
  local_path_ = local_path;
}

template <typename T>
T Config::GetAs(const Json::Value& value) const {
  if constexpr (std::is_same_v<T, std::string>) {
    if (value.isString())
      return value.asString();
  } else if constexpr (std::is_same_v<T, bool>) {
    if (value.isBool())
      return value.asBool();
  } else {
    static_assert(std::is_same_v<T, unsigned long long>);
    if (value.isUInt())
      return value.asUInt64();
    if (value.isInt() && value.asInt64() >= 1)
      return static_cast<unsigned long long>(value.asInt64());
  }
  throw UpdateError("Bad type conversion");
}

template <typename T>
T Config::__Get(const std::string& section, const std::string& key) const {
  try {
    if (const auto local = ReadDocument(*io_, local_path_)) {
      const Json::Value& value = Lookup(*local, section, key);
      if (!value.isNull())
        return GetAs<T>(value);
    }
  } catch (const UpdateError&) {
    // A local file that is missing, unreadable or corrupt, or a local value of
    // the wrong type, is not an error: the default file decides.
  }
  const auto fallback = ReadExisting(*io_, default_path_);
  const Json::Value& value = Lookup(*fallback, section, key);
  if (value.isNull()) {
    throw UpdateError((NoexceptFormat("section-key: '%s'-'%s' not found") % section % key).str());
  }
  return GetAs<T>(value);
}

template <typename T>
void Config::__Set(const std::string& section, const std::string& key, const T& value) const {
  // One lock for every configuration file; held until the write is done.
  FileLock lock(RootPath(kConfigLock), kConfigLockTimeout);
  Json::Value root(Json::objectValue);
  try {
    root = *ReadSections(*io_, local_path_);
  } catch (const UpdateError&) {
    // No local file yet, or a corrupt one: it is replaced by the new value alone.
    root = Json::Value(Json::objectValue);
  }
  if (!root[section].isObject())
    root[section] = Json::Value(Json::objectValue);  // a section that held no keys
  root[section][key] = ToJson(value);
  try {
    io_->WriteJson(local_path_, root);
  } catch (const UpdateError&) {
    throw UpdateError((NoexceptFormat("Fail to set config %s:%s") % section % key).str());
  }
}

template std::string Config::GetAs<std::string>(const Json::Value&) const;
template unsigned long long Config::GetAs<unsigned long long>(const Json::Value&) const;
template bool Config::GetAs<bool>(const Json::Value&) const;
template std::string Config::__Get<std::string>(const std::string&, const std::string&) const;
template unsigned long long Config::__Get<unsigned long long>(const std::string&,
                                                              const std::string&) const;
template bool Config::__Get<bool>(const std::string&, const std::string&) const;
template void Config::__Set<std::string>(const std::string&, const std::string&,
                                         const std::string&) const;
template void Config::__Set<unsigned long long>(const std::string&, const std::string&,
                                                const unsigned long long&) const;
template void Config::__Set<bool>(const std::string&, const std::string&, const bool&) const;

std::string Config::Get(const std::string& section, const std::string& key) const {
  return __Get<std::string>(section, key);
}

unsigned long long Config::GetAsUInt64(const std::string& section, const std::string& key) const {
  return __Get<unsigned long long>(section, key);
}

bool Config::GetAsBool(const std::string& section, const std::string& key) const {
  return __Get<bool>(section, key);
}

void Config::Set(const std::string& section, const std::string& key,
                 const std::string& value) const {
  __Set<std::string>(section, key, value);
}

void Config::Set(const std::string& section, const std::string& key, const char* value) const {
  __Set<std::string>(section, key, std::string(value));
}

void Config::Set(const std::string& section, const std::string& key,
                 unsigned long long value) const {
  __Set<unsigned long long>(section, key, value);
}

void Config::Set(const std::string& section, const std::string& key, bool value) const {
  __Set<bool>(section, key, value);
}

std::vector<std::string> Config::GetSections() const {
  std::shared_ptr<const Json::Value> root;
  try {
    root = ReadDocument(*io_, local_path_);
  } catch (const UpdateError&) {
    // unreadable or undecodable: the default file decides, as for a missing one
  }
  if (!root || !root->isObject())
    root = ReadSections(*io_, default_path_);
  return root->getMemberNames();
}

ServiceConfig::ServiceConfig(std::shared_ptr<Config> config) : config_(std::move(config)) {
  config_->Init(RootPath(kServiceDefault), RootPath(kServiceLocal));
}

ServiceConfig::~ServiceConfig() = default;

std::vector<std::string> ServiceConfig::GetDatabaseIDs() const {
  Config databases(std::make_shared<IOUtils>());
  databases.Init(RootPath(kDatabasesDefault), RootPath(kDatabasesLocal));
  return databases.GetSections();
}

std::shared_ptr<DatabaseConfig> ServiceConfig::GetDatabaseConfig(const std::string& id) const {
  const std::string volume = GetCurVolume();
  auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
  return std::make_shared<DatabaseConfig>(id, volume, config);
}

void ServiceConfig::CheckSupported(const std::string& id) const {
  const std::vector<std::string> ids = GetDatabaseIDs();
  if (std::find(ids.begin(), ids.end(), id) == ids.end())
    throw UpdateError("Project " + id + " not supported");
}

std::string ServiceConfig::GetDownloadScheme() const {
  return config_->Get(kServiceSection, "download_scheme");
}

std::string ServiceConfig::GetDBInfoDomainName() const {
  return config_->Get(kServiceSection, "db_netloc");
}

std::string ServiceConfig::GetDBInfoVersion() const {
  return config_->Get(kServiceSection, "db_ver");
}

std::string ServiceConfig::GetCurVolume() const {
  return config_->Get(kServiceSection, "cur_volume");
}

void ServiceConfig::SetCurVolume(const std::string& volume) const {
  config_->Set(kServiceSection, "cur_volume", volume);
}

bool ServiceConfig::GetVerifyInfo() const {
  try {
    return config_->GetAsBool(kServiceSection, "verify_info");
  } catch (const UpdateError&) {
    return false;  // documents are taken as they come unless asked otherwise
  }
}

DatabaseConfig::DatabaseConfig(const std::string& id, const std::string& cur_volume,
                               std::shared_ptr<Config> config)
    : id_(id), cur_volume_(cur_volume), config_(std::move(config)) {
  config_->Init(RootPath(kDatabasesDefault), RootPath(kDatabasesLocal));
}

DatabaseConfig::~DatabaseConfig() = default;

bool DatabaseConfig::GetScheduled() const {
  try {
    return config_->GetAsBool(id_, "auto_update");
  } catch (const UpdateError&) {
    return true;  // a database is updated unless it says otherwise
  }
}

void DatabaseConfig::SetScheduled(bool scheduled) const {
  config_->Set(id_, "auto_update", scheduled);
}

std::string DatabaseConfig::GetFormatVersion() const {
  return config_->Get(id_, "format_version");
}

namespace {

UpdateError InvalidInstallDest(const std::string& dest) {
  // The second argument is the directory template, not the key: operators'
  // tools match this exact text.
  return UpdateError(
      (NoexceptFormat("Invalid value '%s' for '%s' field") % dest % kVolumeDatabases).str());
}

}  // namespace

std::string DatabaseConfig::GetInstallPrefix() const {
  const std::string dest = config_->Get(id_, "install_dest");
  if (dest == kOnVolume)
    return (NoexceptFormat(kVolumeDatabases) % cur_volume_).str() + "/" + id_;
  if (dest == kOnRootfs)
    return RootPath("/var/db/") + id_;
  throw InvalidInstallDest(dest);
}

std::string DatabaseConfig::GetRootDirectory() const {
  const std::string dest = config_->Get(id_, "install_dest");
  if (dest == kOnVolume)
    return cur_volume_;
  if (dest == kOnRootfs)
    return RootPath("/");
  throw InvalidInstallDest(dest);
}

unsigned long long DatabaseConfig::GetMinReservedSpaceInbytes() const {
  try {
    return config_->GetAsUInt64(id_, "min_rsv_space_inbytes");
  } catch (const UpdateError&) {
    return 0;
  }
}

}  // namespace vesk::dataupdate
