// End-to-end fixture: a sandbox root (VESKDBUD_ROOT) with the trusted package
// key and the delta decoder in place, a publisher source tree, and the
// repository published from it by veskdbud-publish, served on 127.0.0.1.
#pragma once

#include <json/value.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dataupdate/records.h"
#include "forked_child.h"
#include "test_support.h"

namespace vesk::test {
using dataupdate::DiffInfo;
using dataupdate::RemoteInfo;

// Runs a shell command and returns its stdout; fails the test when it exits non-zero.
std::string Capture(const std::string& command);

class Repo {
 public:
  Repo();
  void SetFile(const std::string& id, int version, const std::string& name,
               const std::string& content);
  void CopyVersion(const std::string& id, int from, int to);
  void Sql(const std::string& id, int version, const std::string& name, const std::string& sql);
  std::string SourceDir(const std::string& id, int version) const;

  // Publishes the source tree into the served repository, its links below
  // `base_url` (default BaseUrl()); returns the publisher's exit status.
  int Publish(const std::vector<std::string>& extra_args = {}, const std::string& base_url = "");
  std::string BaseUrl() const {
    return "http://127.0.0.1:" + std::to_string(server_->port()) + "/repo";
  }
  Json::Value Info() const;
  RemoteInfo Remote(const std::string& id) const;
  std::map<int, DiffInfo> Diffs(const std::string& id) const;
  const HttpServer& server() const { return *server_; }
  const std::string& key_dir() const { return key_dir_; }
  const std::string& out_dir() const { return out_; }

  static constexpr const char* kDbVer = "v1";

 private:
  TempDir work_;
  std::string source_;
  std::string out_;
  std::string key_dir_;
  std::unique_ptr<HttpServer> server_;
};

// Trusts the repository's key inside the sandbox and installs the decoder there.
void InstallTrust(const Sandbox& sandbox, const Repo& repo);

std::map<std::string, std::string> Snapshot(const std::string& dir);

struct DatabaseEntry {
  std::string id;
  std::string install_dest = "%VOLUME%";
  std::string format_version = "1";
  bool auto_update = true;
  unsigned long long reserved = 0;
};

// Writes the default data_update.conf (server = the repo, current volume
// `volume`) and databases.conf below the sandbox's /usr/share/data_update.
void WriteDefaultConfig(const Sandbox& sandbox, const Repo& repo, const std::string& volume,
                        const std::vector<DatabaseEntry>& databases);

// "" when the regular files below `got` equal those below `want`; otherwise a
// short description naming the files that differ (never their contents).
// SQLite files are compared by their SQL dump when `sqlite_by_content` is set,
// since a database patched by SQL equals its source in content, not in bytes.
std::string CompareTrees(const std::string& got, const std::string& want,
                         bool sqlite_by_content = false);

}  // namespace vesk::test
