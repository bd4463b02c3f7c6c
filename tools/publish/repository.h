// Publishing: from a source tree (source_tree.h) to a static server tree holding
// the database-info document and every signed full and diff package.
//
// Layout below the output directory (links are the base URL joined with these):
//   database_info/<db-ver>        the database-info document
//   database_info/<db-ver>.sig    its detached signature, with its validity period
//   <id>/v<version>/full.pkg      full package of each version
//   <id>/v<version>/diff.pkg      diff package from version-1 to version
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <string>

#include <openssl/evp.h>

namespace vesk::publish {

struct PublishOptions {
  std::string source;
  std::string out;
  std::string key_path;
  std::string base_url;
  std::string db_ver;
  std::uint32_t key_type = 6;
  // A diff package larger than this share of the full package is not announced.
  double max_diff_ratio = 0.5;
  std::set<std::string> deprecated;
  std::map<std::string, std::string> links;  // id → announced full-package link
  std::optional<std::int64_t> time;          // "last_fetch_time" and archive mtimes
  std::int64_t issued = 0;                   // the document signature's issue time
  int valid_days = 7;                        // ... and its validity from then
};

struct ResignOptions {
  std::string out;
  std::string key_path;
  std::uint32_t key_type = 6;
  std::int64_t issued = 0;
  int valid_days = 7;
};

std::string FullPackagePath(const std::string& id, int version);
std::string DiffPackagePath(const std::string& id, int version);

// Publishes everything; one line per package to `log`, warnings to `warn`.
// Throws PublishError.
void Publish(const PublishOptions& options, std::ostream& log, std::ostream& warn);

// Signs REPO/database_info/<db_ver> anew, valid for `valid_days` from `issued`.
void SignInfo(const std::string& out, const std::string& db_ver, EVP_PKEY* key,
              std::uint32_t key_type, std::int64_t issued, int valid_days, std::ostream& log);

// Renews the signature of every document below REPO/database_info without
// touching a package.
void Resign(const ResignOptions& options, std::ostream& log);

}  // namespace vesk::publish
