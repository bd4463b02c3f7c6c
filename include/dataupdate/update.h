// The service front: what the library's callers invoke.
//
//   InfoGetter   the server's database-info document (cached for an hour under
//                "/run/data_update/fresh_info.lock") and the status files
//   Update       update / fix one or all databases, force-install a version;
//                takes "update_any.lock" then "update_<id>.lock" (600 s each)
//   Checker      whether an update is running (probes the same locks, timeout 0)
//   InitService  chooses a volume and creates its directories at service start
//
// Failures are UpdateError; the operations of Update log them once with the
// database ID and rethrow a copy. No status file is written on failure.
#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "dataupdate/config.h"
#include "dataupdate/export.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "dataupdate/updater.h"

namespace vesk::dataupdate {

class VESKDBUD_EXPORT InfoGetter {
 public:
  InfoGetter(std::shared_ptr<IOUtils> io, std::shared_ptr<ServiceConfig> config);
  virtual ~InfoGetter();

  virtual RemoteInfo GetRemoteInfo(const std::string& id) const;
  virtual std::map<int, DiffInfo> GetDiffInfos(const std::string& id) const;
  // The installed status; data version -1 when the file is missing or bad.
  virtual DatabaseStatus GetDatabaseStatus(const std::string& id) const;
  // GetDatabaseStatus(id).data_version, read without building the list of
  // recorded files (so at a cost that hardly grows with it) and without a log
  // line, when the status file is in the plain form this library writes.
  // nullopt otherwise (a missing, bad or hand-edited file), and whenever the
  // IOUtils or this InfoGetter is a substitute: GetDatabaseStatus tells then.
  std::optional<int> QuickInstalledVersion(const std::string& id) const;
  virtual void SetDatabaseStatus(const std::string& id, const DatabaseStatus& status) const;
  // The whole cached document, downloaded first when missing or over an hour old.
  virtual Json::Value GetDatabaseInfo() const;
  virtual std::string GetDatabaseUrl() const;
  virtual std::string GetQueryString() const;

 private:
  std::shared_ptr<IOUtils> io_;
  std::shared_ptr<ServiceConfig> config_;
};

class VESKDBUD_EXPORT Update {
 public:
  Update(std::shared_ptr<Updater> updater, std::shared_ptr<InfoGetter> info_getter,
         std::shared_ptr<ServiceConfig> config);
  virtual ~Update();

  // Every scheduled database in configuration order; stops at the first failure
  // with "Fail on project '<id>': <message>".
  virtual void UpdateAllProjects() const;
  virtual void UpdateProject(const std::string& id) const;
  virtual void FixAllProjects() const;
  virtual void FixProject(const std::string& id) const;
  // version > 0: exactly that version; 0: the server's; < 0: counted back from it.
  virtual void ForceInstall(const std::string& id, int version) const;

  void OperateAllProjects(std::function<void(const std::string&)> operation) const;

  // Called with the database's ID by UpdateProject, FixProject and
  // ForceInstall as soon as they hold its update locks, before they read
  // anything: what it reads then stays as it is until the operation ends,
  // since another run that did the work while this one waited is over.
  void SetLockedHook(std::function<void(const std::string& id)> hook);

 private:
  void Locked(const std::string& id) const;

  std::shared_ptr<Updater> updater_;
  std::shared_ptr<InfoGetter> info_getter_;
  std::shared_ptr<ServiceConfig> config_;
  std::function<void(const std::string&)> locked_hook_;
};

class VESKDBUD_EXPORT Checker {
 public:
  explicit Checker(std::shared_ptr<ServiceConfig> config);
  virtual ~Checker();

  // Throws UpdateError for an unsupported database.
  virtual bool IsUpdating(const std::string& id) const;
  virtual bool IsAnyUpdating() const;

 private:
  std::shared_ptr<ServiceConfig> config_;
};

// Prepares the service at start: chooses a volume when none is recorded and
// creates the databases' directory on it. Errors of construction reach the caller.
VESKDBUD_EXPORT void InitService();

// Finishes or undoes what a killed run left (an interrupted exchange of trees,
// a volume move, the temporary area), unless a run is under way, which does it
// itself. Never waits and never throws; what fails is logged. For read-only
// callers such as a status display, which must not show a half-done state.
VESKDBUD_EXPORT void FinishInterruptedWork();

}  // namespace vesk::dataupdate
