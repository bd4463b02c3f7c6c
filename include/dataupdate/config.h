// The configuration of the service and of each database.
//
// Config is one sectioned configuration made of two JSON files: a read-only
// default file shipped with the system and a local file holding what was changed
// on this machine. A value is addressed by (section, key). Reads try the local
// file first and fall back to the default file whenever the local one is missing,
// unreadable, lacks the key or holds it with the wrong type; only a failure on
// the default file is reported. Writes go to the local file only, under the
// exclusive lock file "/run/data_update/config.lock" (600 s limit), and never
// touch the default file. Nothing is cached: every call reads the files again.
//
// ServiceConfig and DatabaseConfig are typed views over a Config, for
// data_update.conf and databases.conf respectively. Every fixed path is resolved
// through vesk::platform::RootPath when the view is made.
//
// Every operation throws UpdateError on failure, except
// DatabaseConfig::GetScheduled (true) and GetMinReservedSpaceInbytes (0), which
// swallow it. Values that are valid JSON but not objects where a section is
// expected are left to the JSON library's own errors.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

#include "dataupdate/export.h"
#include "dataupdate/io_utils.h"

namespace vesk::dataupdate {

class VESKDBUD_EXPORT Config {
 public:
  explicit Config(std::shared_ptr<IOUtils> io);
  virtual ~Config();

  // Only stores the paths (no I/O); may be called again to re-point the object.
  virtual void Init(const std::string& default_path, const std::string& local_path);

  virtual std::string Get(const std::string& section, const std::string& key) const;
  virtual unsigned long long GetAsUInt64(const std::string& section, const std::string& key) const;
  virtual bool GetAsBool(const std::string& section, const std::string& key) const;

  virtual void Set(const std::string& section, const std::string& key,
                   const std::string& value) const;
  // A null `value` fails with std::logic_error before any file is touched.
  virtual void Set(const std::string& section, const std::string& key, const char* value) const;
  virtual void Set(const std::string& section, const std::string& key,
                   unsigned long long value) const;
  virtual void Set(const std::string& section, const std::string& key, bool value) const;

  // The section names of the local file when it can be read, otherwise of the
  // default file: the local file's sections shadow the default's.
  virtual std::vector<std::string> GetSections() const;

  // Converts one JSON value; any mismatch throws "Bad type conversion".
  // std::string: strings only. bool: booleans only. unsigned long long: what
  // the JSON library calls an unsigned int (so at most 2^32 - 1), or a signed
  // int of at least 1; text holding digits is refused.
  template <typename T>
  T GetAs(const Json::Value& value) const;

  // The layered read and the locked write behind Get* and Set; instantiated
  // for std::string, unsigned long long and bool.
  template <typename T>
  T __Get(const std::string& section, const std::string& key) const;
  template <typename T>
  void __Set(const std::string& section, const std::string& key, const T& value) const;

 private:
  std::string default_path_;
  std::string local_path_;
  std::shared_ptr<IOUtils> io_;
};

// The templates are defined in the library for these three types only.
extern template std::string Config::GetAs<std::string>(const Json::Value&) const;
extern template unsigned long long Config::GetAs<unsigned long long>(const Json::Value&) const;
extern template bool Config::GetAs<bool>(const Json::Value&) const;
extern template std::string Config::__Get<std::string>(const std::string&,
                                                       const std::string&) const;
extern template unsigned long long Config::__Get<unsigned long long>(const std::string&,
                                                                     const std::string&) const;
extern template bool Config::__Get<bool>(const std::string&, const std::string&) const;
extern template void Config::__Set<std::string>(const std::string&, const std::string&,
                                                const std::string&) const;
extern template void Config::__Set<unsigned long long>(const std::string&, const std::string&,
                                                       const unsigned long long&) const;
extern template void Config::__Set<bool>(const std::string&, const std::string&, const bool&) const;

class DatabaseConfig;

// The service-wide settings (data_update.conf) and the list of databases
// (the sections of databases.conf).
class VESKDBUD_EXPORT ServiceConfig {
 public:
  // Points `config` at the default and local data_update.conf.
  explicit ServiceConfig(std::shared_ptr<Config> config);
  virtual ~ServiceConfig();

  // Read from databases.conf through a Config of its own.
  virtual std::vector<std::string> GetDatabaseIDs() const;
  // Fixes the current volume into the result; fails when none is configured.
  // Does not check that `id` is a known database.
  virtual std::shared_ptr<DatabaseConfig> GetDatabaseConfig(const std::string& id) const;
  // Throws "Project <id> not supported" unless `id` is one of GetDatabaseIDs().
  virtual void CheckSupported(const std::string& id) const;
  virtual std::string GetDownloadScheme() const;
  virtual std::string GetDBInfoDomainName() const;
  virtual std::string GetDBInfoVersion() const;
  virtual std::string GetCurVolume() const;
  virtual void SetCurVolume(const std::string& volume) const;
  // "verify_info": whether the database-info document must carry a valid
  // signature by a trusted key; false when absent or not a boolean.
  virtual bool GetVerifyInfo() const;

 private:
  std::shared_ptr<Config> config_;
};

// The settings of one database: the section `id` of databases.conf.
class VESKDBUD_EXPORT DatabaseConfig {
 public:
  // Points `config` at the default and local databases.conf. `cur_volume` is
  // kept as given: later volume changes do not reach this object.
  DatabaseConfig(const std::string& id, const std::string& cur_volume,
                 std::shared_ptr<Config> config);
  virtual ~DatabaseConfig();

  // True unless "auto_update" reads as false; an unreadable value counts as true.
  virtual bool GetScheduled() const;
  virtual void SetScheduled(bool scheduled) const;
  virtual std::string GetFormatVersion() const;
  // "%VOLUME%": "<cur_volume>/@database/autoupdate/<id>"; "%ROOTFS%": "/var/db/<id>".
  virtual std::string GetInstallPrefix() const;
  // "%VOLUME%": the volume itself; "%ROOTFS%": "/".
  virtual std::string GetRootDirectory() const;
  // 0 when the value cannot be read.
  virtual unsigned long long GetMinReservedSpaceInbytes() const;

 private:
  std::string id_;
  std::string cur_volume_;
  std::shared_ptr<Config> config_;
};

}  // namespace vesk::dataupdate
