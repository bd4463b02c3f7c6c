// Strategies: the ways of bringing a database's installed files to a new version.
//
// The update engine calls, in this order: construct, PrepareUpdate (download,
// verify, extract, patch and check free space, all in temporary directories
// under "<volume>/@tmp/data_update", never touching the installed files),
// GetModifiedFiles, ApplyUpdate (replace the installed files under the
// database's "using" lock), destroy (remove every temporary path; destructors
// never throw). PrepareUpdate and ApplyUpdate throw UpdateError on failure.
//
//   FullStrategy        the whole signed package replaces the install directory
//   DiffStrategy        one diff package per version, applied in ascending order
//   ForceInstallByLink  a given package replaces the install directory
//
// Every strategy builds the new tree beside the install directory, on its
// file system, and exchanges the two in one step under the "using" lock, so
// the install directory holds one whole release at every moment.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "dataupdate/export.h"
#include "dataupdate/records.h"

namespace vesk::dataupdate {

class StagedTree;

// What a strategy will do with one file, keyed by the file's name relative to
// the install directory.
struct VESKDBUD_EXPORT ModifyInfo {
  enum Operation : int {
    kOverride = 1,  // write the file from `path`
    kDelete = 2,    // remove the installed file
  };
  int operation = kOverride;
  std::string path;  // the file that holds the new content
};

class VESKDBUD_EXPORT BaseStrategy {
 public:
  virtual ~BaseStrategy();
  virtual void PrepareUpdate();
  virtual void ApplyUpdate();
  virtual std::set<std::string> GetModifiedFiles() const;
  // Bytes the update frees: removed minus written (negative when it grows).
  virtual long long GetDeltaSize() const;

 protected:
  // True when the SHA-384 of `file` is exactly `digest`.
  static bool _CheckDigest(const std::string& file, const std::string& digest);
  // True when, after freeing `delta` bytes, more than 5% of the file system
  // holding `path` stays available.
  static bool _IsSpaceEnough(const std::string& path, long long delta);
  // Verifies the signed package and extracts it into the existing `dir`.
  static void _ExtractTarballTo(const std::string& package, const std::string& dir);
};

class VESKDBUD_EXPORT FullStrategy : public BaseStrategy {
 public:
  FullStrategy(const std::string& id, const RemoteInfo& remote_info, const std::string& volume,
               const std::string& install_prefix, const std::string& root_directory);
  ~FullStrategy() override;
  FullStrategy(const FullStrategy&) = delete;
  FullStrategy& operator=(const FullStrategy&) = delete;

  void PrepareUpdate() override;
  // Builds the package's tree beside the install directory, then exchanges them.
  void ApplyUpdate() override;
  std::set<std::string> GetModifiedFiles() const override;
  long long GetDeltaSize() const override;

 protected:
  void _CalModifyInfo();

 private:
  std::string id_;
  RemoteInfo remote_info_;
  std::string volume_;
  std::string install_prefix_;
  std::string root_directory_;
  std::string tarball_path_;
  std::string extract_path_;
  std::map<std::string, ModifyInfo> modify_infos_;
};

class VESKDBUD_EXPORT DiffStrategy : public BaseStrategy {
 public:
  DiffStrategy(const std::string& database_id, const DatabaseStatus& status,
               const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs,
               const std::string& volume, const std::string& install_prefix,
               const std::string& root_directory);
  ~DiffStrategy() override;
  DiffStrategy(const DiffStrategy&) = delete;
  DiffStrategy& operator=(const DiffStrategy&) = delete;

  // Throws "No sufficient diff patched" unless every version from the installed
  // one + 1 up to the remote one has a diff package.
  void PrepareUpdate() override;
  void ApplyUpdate() override;
  std::set<std::string> GetModifiedFiles() const override;
  long long GetDeltaSize() const override;

  bool _IsDiffUpdateAvailable();
  void _DoDiffUpdateTo(int version);
  void _PatchFile(const std::string& file_name, const std::string& operation,
                  const std::string& input_path);
  void _DoVcPatch(const std::string& target, const std::string& delta);
  void _DoSqlitePatch(const std::string& database_file, const std::string& diff_file);

 private:
  std::string id_;
  DatabaseStatus status_;
  RemoteInfo remote_;
  std::map<int, DiffInfo> diffs_;
  std::string volume_;
  std::string install_prefix_;
  std::string root_directory_;
  std::map<std::string, ModifyInfo> modify_infos_;
  std::map<int, std::string> delta_dirs_;
  std::map<int, std::string> packages_;
  std::string sum_dir_;
};

class VESKDBUD_EXPORT ForceInstallByLink : public BaseStrategy {
 public:
  // Any full package of the database `id` is accepted.
  ForceInstallByLink(const std::string& id, const std::string& download_link,
                     const std::string& volume, const std::string& install_prefix,
                     const std::string& root_directory);
  // Only the full package of version `data_version` of `id` is accepted.
  ForceInstallByLink(const std::string& id, const std::string& download_link, int data_version,
                     const std::string& volume, const std::string& install_prefix,
                     const std::string& root_directory);
  ~ForceInstallByLink() override;
  ForceInstallByLink(const ForceInstallByLink&) = delete;
  ForceInstallByLink& operator=(const ForceInstallByLink&) = delete;

  // Downloads the package and extracts it beside the install directory.
  void PrepareUpdate() override;
  // Exchanges the extracted tree with the install directory.
  void ApplyUpdate() override;
  // Every file of the package.
  std::set<std::string> GetModifiedFiles() const override;

 private:
  std::string id_;
  std::string download_link_;
  std::string volume_;
  std::string install_prefix_;
  std::string root_directory_;  // kept; this strategy checks no space
  std::string tarball_path_;
  int data_version_ = 0;
  bool any_version_ = true;  // built from a link alone
  std::unique_ptr<StagedTree> staged_;
  std::set<std::string> files_;
};

}  // namespace vesk::dataupdate
