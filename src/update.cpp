#include "dataupdate/update.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <new>
#include <optional>
#include <typeinfo>

#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/strategy.h"
#include "dataupdate/volume_handler.h"
#include "info_document.h"
#include "journal.h"
#include "json_read.h"
#include "log_sites.h"
#include "manifest.h"
#include "staged_tree.h"
#include "unique_fd.h"
#include "vesk/crypto_hwid.h"
#include "vesk/root.h"
#include "vlib/vlibc.h"
#include "volume_move.h"

namespace vesk::dataupdate {
namespace {

constexpr unsigned int kLockTimeout = 600;
constexpr int kCacheMaxAge = 3600;

std::string UpdateAnyLock() {
  return platform::RootPath("/run/data_update/update_any.lock");
}

std::string UpdateOneLock(const std::string& id) {
  return platform::RootPath((NoexceptFormat("/run/data_update/update_%s.lock") % id).str());
}

std::string StatusPath(const std::string& id) {
  return platform::RootPath((NoexceptFormat("/var/lib/data_update/%s/version.json") % id).str());
}

struct HwidFree {
  void operator()(veskcrypto_hwid* ctx) const { veskcrypto_hwid_free(ctx); }
};

// The machine identity sent to the server; "" (and one error line) when the
// platform cannot give one, since the query is still worth sending.
std::string MachineIdentity() {
  std::unique_ptr<veskcrypto_hwid, HwidFree> ctx(veskcrypto_hwid_init());
  if (!ctx || veskcrypto_hwid_str(ctx.get(), 16) == 0) {
    log::Write(log::site::kHwidFailed);
    return {};
  }
  return ctx->str;
}

// wget dates what it saves with the server's Last-Modified, which for a
// document published long ago would make every fresh download look stale; the
// hour of the cache counts from the download. A stamp that cannot be set only
// brings the next refresh forward, so it is not an error.
void MarkDownloadedNow(const std::string& path) {
  static_cast<void>(utimensat(AT_FDCWD, path.c_str(), nullptr, 0));
}

// Removes a file when it goes out of scope, unless Keep() was called.
class RemoveUnlessKept {
 public:
  explicit RemoveUnlessKept(std::string path) : path_(std::move(path)) {}
  ~RemoveUnlessKept() {
    if (!path_.empty())
      ::unlink(path_.c_str());
  }
  RemoveUnlessKept(const RemoveUnlessKept&) = delete;
  RemoveUnlessKept& operator=(const RemoveUnlessKept&) = delete;
  void Keep() { path_.clear(); }

 private:
  std::string path_;
};

// Flushes `fresh` and renames it over `target`: a power cut must not leave an
// empty cache that would fail every update for an hour.
void Commit(const std::string& fresh, const std::string& target) {
  UniqueFd fd(open(fresh.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd || fsync(fd.get()) != 0 || std::rename(fresh.c_str(), target.c_str()) != 0)
    throw UpdateError("Fail to write: " + target);
}

Json::Value ReadDocumentObject(const IOUtils& io, const std::string& path) {
  Json::Value document;
  try {
    document = io.ReadJson(path);
  } catch (const Json::Exception&) {
    document = Json::Value();  // the reader gave up on it: not a document either
  }
  if (!document.isObject())
    throw UpdateError("Fail to decode: " + path);
  return document;
}

// The refresh downloads beside the cache and renames the new document over it
// only once it reads as a JSON object, so a failed or garbled download leaves
// the last good document on disk (not consulted for this call: the error is the
// caller's). Called with the refresh lock held.
Json::Value RefreshCache(const IOUtils& io, const std::string& url, const std::string& cache) {
  const std::string fresh = cache + ".tmp";
  RemoveUnlessKept cleanup(fresh);
  io.Download(fresh, url);
  Json::Value document = ReadDocumentObject(io, fresh);
  MarkDownloadedNow(fresh);
  Commit(fresh, cache);
  cleanup.Keep();
  return document;
}

// With signed documents: the cached document serves while it is younger than
// the cache's hour and its signature still holds (trusted, unexpired, not older
// than the newest accepted); otherwise the document and its signature are
// fetched again and replace the cached pair only once they pass, so a refused
// document is never acted on and the last good one stays on disk.
Json::Value VerifiedInfo(const IOUtils& io, const std::string& url, const std::string& sig_url,
                         const std::string& cache, const std::string& info_version) {
  const std::string signature = SignaturePathOf(cache);
  if (VLIBCFileExist(cache.c_str()) != 0 && !io.FileCreateOver(cache, kCacheMaxAge)) {
    try {
      CheckSignedInfo(io, cache, signature, info_version);
      return ReadDocumentObject(io, cache);
    } catch (const UpdateError& e) {
      log::Write(log::site::kFreshInfoError, std::string(e.what()));
    }
  }
  const std::string fresh = cache + ".tmp";
  const std::string fresh_signature = signature + ".tmp";
  RemoveUnlessKept cleanup(fresh);
  RemoveUnlessKept cleanup_signature(fresh_signature);
  io.Download(fresh, url);
  io.Download(fresh_signature, sig_url);
  const long long issued = CheckSignedInfo(io, fresh, fresh_signature, info_version);
  Json::Value document = ReadDocumentObject(io, fresh);
  // Older documents are replays from here on, even if the renames below are cut.
  RecordAcceptedInfo(io, info_version, issued);
  MarkDownloadedNow(fresh);
  // A cut between the two leaves a pair that fails its check: fetched again.
  Commit(fresh_signature, signature);
  cleanup_signature.Keep();
  Commit(fresh, cache);
  cleanup.Keep();
  return document;
}

// The member `key` of `value`, null when `value` is not an object: the JSON
// library's const operator[] throws on arrays and scalars, so a document of
// the wrong shape reads as one that lacks the member.
const Json::Value& MemberOf(const Json::Value& value, const std::string& key) {
  static const Json::Value kNull;
  return value.isObject() ? value[key] : kNull;
}

// Runs a record reader on a document from outside; what it throws other than
// UpdateError (a number that does not fit, a member of the wrong kind) is the
// record's own "Invalid json object for <record>" error.
template <typename Read>
auto ReadRecord(const char* record, Read read) -> decltype(read()) {
  try {
    return read();
  } catch (const UpdateError&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    throw UpdateError(std::string("Invalid json object for ") + record);
  }
}

// Every occurrence of `from` replaced by `to`, resuming after each inserted text.
std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  if (from.empty())
    return text;
  for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos)) {
    text.replace(pos, from.size(), to);
    pos += to.size();
  }
  return text;
}

// What a killed run left, finished or removed before this run does anything
// (the caller holds "update_any.lock", so no other run is under way): the
// exchanges in the journal, and the temporary area of the current volume,
// also when there turns out to be nothing to update.
void FinishWhatKilledRunsLeft(ServiceConfig& config) {
  ResumeVolumeMove(config);
  RecoverStagedTrees();
  const std::string volume = config.GetCurVolume();
  if (volume.empty())
    return;
  const std::string tmp = (NoexceptFormat("%s/@tmp/data_update") % volume).str();
  boost::system::error_code ec;
  if (boost::filesystem::exists(tmp, ec) && !boost::filesystem::is_empty(tmp, ec)) {
    try {
      IOUtils().RmRf(tmp);
      log::Write(log::site::kLeftOverRemoved, tmp);
    } catch (const UpdateError& e) {
      log::Write(log::site::kJournalFailed, tmp, std::string(e.what()));
    }
  }
}

}  // namespace

// ---------------------------------------------------------------- InfoGetter

InfoGetter::InfoGetter(std::shared_ptr<IOUtils> io, std::shared_ptr<ServiceConfig> config)
    : io_(std::move(io)), config_(std::move(config)) {}

InfoGetter::~InfoGetter() = default;

std::string InfoGetter::GetQueryString() const {
  std::string query = "?os=vko";
  query += "&dlid=" + MachineIdentity();
  std::vector<std::string> ids = config_->GetDatabaseIDs();
  std::sort(ids.begin(), ids.end());
  for (const std::string& id : ids) {
    query += (NoexceptFormat("&db_list[%s]=%s") % id %
              config_->GetDatabaseConfig(id)->GetFormatVersion())
                 .str();
  }
  return query;
}

std::string InfoGetter::GetDatabaseUrl() const {
  const std::string scheme = config_->GetDownloadScheme();
  const std::string domain = config_->GetDBInfoDomainName();
  const std::string version = config_->GetDBInfoVersion();
  return (NoexceptFormat("%s://%s/database_info/%s%s") % scheme % domain % version %
          GetQueryString())
      .str();
}

namespace {

// The document's signature sits beside it on the server: "<document>.sig",
// asked with the same query.
std::string SignatureUrl(const std::string& url) {
  const size_t query = url.find('?');
  return query == std::string::npos ? url + ".sig"
                                    : url.substr(0, query) + ".sig" + url.substr(query);
}

}  // namespace

namespace {

// GetDatabaseInfo's work. The cached document is shared with the reading
// kept by IOUtils rather than copied: each database's update looks it up twice,
// and it lists every database.
std::shared_ptr<const Json::Value> DatabaseInfo(const InfoGetter& getter, const IOUtils& io,
                                                const ServiceConfig& config) {
  const std::string cache = platform::RootPath("/var/cache/data_update/database_info.json");
  try {
    io.VeskMkdir(platform::RootPath("/var/cache/data_update"));
    // Held while reading too, so a reader never sees a half-replaced document.
    FileLock lock(platform::RootPath("/run/data_update/fresh_info.lock"), kLockTimeout);
    if (config.GetVerifyInfo()) {
      const std::string url = getter.GetDatabaseUrl();
      return std::make_shared<const Json::Value>(
          VerifiedInfo(io, url, SignatureUrl(url), cache, config.GetDBInfoVersion()));
    }
    if (VLIBCFileExist(cache.c_str()) == 0 || io.FileCreateOver(cache, kCacheMaxAge))
      return std::make_shared<const Json::Value>(RefreshCache(io, getter.GetDatabaseUrl(), cache));
    auto document = ReadJsonShared(io, cache);
    if (!document)
      throw UpdateError("File not exist: " + cache, UpdateError::kFileNotExist);
    return document;
  } catch (const UpdateError& e) {
    log::Write(log::site::kFreshInfoFailed);
    log::Write(log::site::kFreshInfoError, std::string(e.what()));
    throw;
  }
}

// The document as GetDatabaseInfo gives it, shared where it is the library's own.
std::shared_ptr<const Json::Value> SharedInfo(const InfoGetter& getter, const IOUtils& io,
                                              const ServiceConfig& config) {
  if (typeid(getter) != typeid(InfoGetter))
    return std::make_shared<const Json::Value>(getter.GetDatabaseInfo());  // a substitute's
  return DatabaseInfo(getter, io, config);
}

}  // namespace

Json::Value InfoGetter::GetDatabaseInfo() const {
  return *DatabaseInfo(*this, *io_, *config_);
}

RemoteInfo InfoGetter::GetRemoteInfo(const std::string& id) const {
  const auto shared = SharedInfo(*this, *io_, *config_);
  const Json::Value& document = *shared;
  Json::Value entry = MemberOf(MemberOf(document, "db_list"), id);
  if (!entry.isObject() && !entry.isNull())
    throw UpdateError("Invalid json object for RemoteInfo");
  const Json::Value& global = MemberOf(document, "deprecated");
  const bool globally_deprecated = global.isConvertibleTo(Json::booleanValue) && global.asBool();
  // A top-level true always wins; an entry's own value stands otherwise.
  if (globally_deprecated || !entry.isMember("deprecated"))
    entry["deprecated"] = global;
  return ReadRecord("RemoteInfo", [&entry] { return RemoteInfo::FromJson(entry); });
}

std::map<int, DiffInfo> InfoGetter::GetDiffInfos(const std::string& id) const {
  const auto document = SharedInfo(*this, *io_, *config_);
  const Json::Value& files = MemberOf(MemberOf(MemberOf(*document, "db_list"), id), "diff_files");
  return ReadRecord("DiffInfo", [&files] { return DiffInfo::BatchFromJson(files); });
}

DatabaseStatus InfoGetter::GetDatabaseStatus(const std::string& id) const {
  const std::string path = StatusPath(id);
  try {
    Json::Value json;
    try {
      json = io_->ReadJson(path);
    } catch (const Json::Exception&) {
      throw UpdateError("Fail to decode: " + path);  // the reader gave up on it
    }
    return ReadRecord("DatabaseStatus", [&json] { return DatabaseStatus::FromJson(json); });
  } catch (const UpdateError& e) {
    if (e.code() == UpdateError::kFileNotExist) {
      log::Write(log::site::kStatusMissing, std::string(e.what()));
    } else {
      log::Write(log::site::kStatusBad, std::string(e.what()));
      log::Write(log::site::kStatusBadHint, id);
    }
    DatabaseStatus empty;
    empty.data_version = -1;
    empty.last_fetch_time = 0;
    return empty;
  }
}

void InfoGetter::SetDatabaseStatus(const std::string& id, const DatabaseStatus& status) const {
  io_->WriteJson(StatusPath(id), DatabaseStatus::ToJson(status));
}

// -------------------------------------------------------------------- Update

Update::Update(std::shared_ptr<Updater> updater, std::shared_ptr<InfoGetter> info_getter,
               std::shared_ptr<ServiceConfig> config)
    : updater_(std::move(updater)),
      info_getter_(std::move(info_getter)),
      config_(std::move(config)) {}

Update::~Update() = default;

void Update::SetLockedHook(std::function<void(const std::string& id)> hook) {
  locked_hook_ = std::move(hook);
}

void Update::Locked(const std::string& id) const {
  if (locked_hook_)
    locked_hook_(id);
}

void Update::UpdateAllProjects() const {
  OperateAllProjects([this](const std::string& id) { UpdateProject(id); });
}

void Update::FixAllProjects() const {
  OperateAllProjects([this](const std::string& id) { FixProject(id); });
}

void Update::OperateAllProjects(std::function<void(const std::string&)> operation) const {
  for (const std::string& id : config_->GetDatabaseIDs()) {
    try {
      const bool scheduled = config_->GetDatabaseConfig(id)->GetScheduled();
      const std::string volume = config_->GetCurVolume();
      if (!scheduled)
        continue;
      if (volume.empty()) {
        log::Write(log::site::kNoVolumeStopAll);
        return;
      }
      operation(id);
    } catch (const UpdateError& e) {
      throw UpdateError("Fail on project '" + id + "': " + e.what());
    }
  }
}

void Update::UpdateProject(const std::string& id) const {
  try {
    config_->CheckSupported(id);
    FileLock any_lock(UpdateAnyLock(), kLockTimeout);
    FileLock project_lock(UpdateOneLock(id), kLockTimeout);
    Locked(id);
    FinishWhatKilledRunsLeft(*config_);

    // The up-to-date test needs the installed version and the cheap check of
    // the manifest; the recorded files are read when an update follows.
    std::optional<DatabaseStatus> status;
    std::optional<int> installed = info_getter_->QuickInstalledVersion(id);
    if (!installed) {
      status = info_getter_->GetDatabaseStatus(id);
      installed = status->data_version;
    }
    const RemoteInfo remote = info_getter_->GetRemoteInfo(id);
    const std::map<int, DiffInfo> diffs = info_getter_->GetDiffInfos(id);
    const std::shared_ptr<DatabaseConfig> database = config_->GetDatabaseConfig(id);

    const std::string install_prefix = database->GetInstallPrefix();
    bool reinstall = false;
    if (*installed >= remote.data_version) {
      RemoveNonDirectory(install_prefix);
      if (StoredManifestHolds(id, *installed, install_prefix)) {
        log::Write(log::site::kUpToDate, id);
        return;
      }
      log::Write(log::site::kManifestCheckFailed, id);
      reinstall = true;
    }
    if (!status)
      status = info_getter_->GetDatabaseStatus(id);
    log::Write(log::site::kUpdateStart, id);
    if (config_->GetCurVolume().empty()) {
      log::Write(log::site::kNoVolumeStopOne);
      return;
    }
    const std::string volume = config_->GetCurVolume();
    const std::string root_directory = database->GetRootDirectory();
    RemoveNonDirectory(install_prefix);
    if (reinstall)
      status->data_version = -1;  // no diff chain from files that do not match

    const DatabaseStatus updated =
        updater_->Update(id, *status, remote, diffs, volume, install_prefix, root_directory);
    info_getter_->SetDatabaseStatus(id, updated);
    log::Write(log::site::kUpdateDone, id);
  } catch (const UpdateError& e) {
    log::Write(log::site::kUpdateFailed, id, std::string(e.what()));
    throw UpdateError(e);
  }
}

void Update::FixProject(const std::string& id) const {
  try {
    config_->CheckSupported(id);
    FileLock any_lock(UpdateAnyLock(), kLockTimeout);
    FileLock project_lock(UpdateOneLock(id), kLockTimeout);
    Locked(id);
    FinishWhatKilledRunsLeft(*config_);

    const DatabaseStatus status = info_getter_->GetDatabaseStatus(id);
    const RemoteInfo remote = info_getter_->GetRemoteInfo(id);
    const std::shared_ptr<DatabaseConfig> database = config_->GetDatabaseConfig(id);
    const std::string volume = config_->GetCurVolume();
    const std::string install_prefix = database->GetInstallPrefix();
    const std::string root_directory = database->GetRootDirectory();

    RemoveNonDirectory(install_prefix);
    Fixer fixer(id, remote, volume, install_prefix, root_directory);
    if (!fixer.IsFixNeeded(status))
      return;
    info_getter_->SetDatabaseStatus(id, fixer.Fix());
    log::Write(log::site::kFixDone, id);
  } catch (const UpdateError& e) {
    log::Write(log::site::kFixFailed, id, std::string(e.what()));
    throw UpdateError(e);
  }
}

void Update::ForceInstall(const std::string& id, int version) const {
  FileLock any_lock(UpdateAnyLock(), kLockTimeout);
  FileLock project_lock(UpdateOneLock(id), kLockTimeout);
  Locked(id);
  FinishWhatKilledRunsLeft(*config_);

  RemoteInfo remote = info_getter_->GetRemoteInfo(id);
  const int current = remote.data_version;
  // Wraps rather than overflows for absurd inputs; nothing below rejects them.
  const int target = version > 0 ? version
                                 : static_cast<int>(static_cast<unsigned int>(current) +
                                                    static_cast<unsigned int>(version));
  remote.data_version = target;
  remote.download_link =
      ReplaceAll(remote.download_link, std::to_string(current), std::to_string(target));

  const std::shared_ptr<DatabaseConfig> database = config_->GetDatabaseConfig(id);
  const std::string volume = config_->GetCurVolume();
  const std::string install_prefix = database->GetInstallPrefix();

  RemoveNonDirectory(install_prefix);
  ForceInstallByLink strategy(id, remote.download_link, remote.data_version, volume, install_prefix,
                              "/");
  strategy.PrepareUpdate();
  RemoveStoredManifest(id);
  strategy.ApplyUpdate();
  const std::set<std::string> files = strategy.GetModifiedFiles();

  DatabaseStatus status;
  status.data_version = target;
  status.last_fetch_time = remote.last_fetch_time;
  status.file_statuses = CalculateStatus(files, database->GetInstallPrefix());
  // The whole tree was installed: its files are exactly those digested.
  WriteStoredManifest(id, target, ManifestFromStatuses(status.file_statuses, install_prefix));
  info_getter_->SetDatabaseStatus(id, status);
}

// ------------------------------------------------------------------- Checker

Checker::Checker(std::shared_ptr<ServiceConfig> config) : config_(std::move(config)) {}

Checker::~Checker() = default;

bool Checker::IsAnyUpdating() const {
  try {
    FileLock probe(UpdateAnyLock(), 0);
    return false;
  } catch (const UpdateError&) {
    return true;
  }
}

bool Checker::IsUpdating(const std::string& id) const {
  config_->CheckSupported(id);
  const std::string path = UpdateOneLock(id);
  try {
    FileLock probe(path, 0);
    return false;
  } catch (const UpdateError&) {
    return true;
  }
}

// --------------------------------------------------------------- InitService

void InitService() {
  auto io = std::make_shared<IOUtils>();
  auto config = std::make_shared<Config>(io);
  auto service_config = std::make_shared<ServiceConfig>(config);
  VolumeHandler handler(service_config);
  handler.InitVolume();
  // Exchanges a killed run left are finished now unless a run is under way
  // (which finishes them itself).
  try {
    FileLock any_lock(UpdateAnyLock(), 0);
    RecoverStagedTrees();
  } catch (const UpdateError&) {
  }
}

void FinishInterruptedWork() {
  try {
    FileLock any_lock(UpdateAnyLock(), 0);
    ServiceConfig config(std::make_shared<Config>(std::make_shared<IOUtils>()));
    FinishWhatKilledRunsLeft(config);
  } catch (const std::exception&) {
    // A run under way finishes it; anything else waits for the next run.
  }
}

}  // namespace vesk::dataupdate
