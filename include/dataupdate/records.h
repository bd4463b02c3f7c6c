// The value records that describe databases, and their JSON forms.
//
// RemoteInfo   what the server says of a database (newest version, its link)
// DiffInfo     one diff package offered by the server
// FileStatus   the SHA-384 digest of one installed file
// DatabaseStatus  the local status of one installed database
//
// In JSON, "data_version" is a decimal *string* while "last_fetch_time" is an
// integer; both directions keep that asymmetry. FromJson/BatchFromJson throw
// UpdateError ("Invalid json object for <Record>") when a member is missing or
// of the wrong type, and FromJson also when the value is not an object at all
// (null, an array or a scalar); a "data_version" text holding no number lets the
// standard std::stoi error (std::invalid_argument / std::out_of_range) through.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include "dataupdate/export.h"

namespace vesk::dataupdate {

struct VESKDBUD_EXPORT RemoteInfo {
  int data_version = 0;
  int last_fetch_time = 0;
  bool deprecated = false;
  std::string download_link;

  RemoteInfo() = default;
  RemoteInfo(int data_version, int last_fetch_time, bool deprecated,
             const std::string& download_link);

  bool operator==(const RemoteInfo& other) const;

  static RemoteInfo FromJson(const Json::Value& value);
  static Json::Value ToJson(const RemoteInfo& info);
};

struct VESKDBUD_EXPORT DiffInfo {
  std::string download_link;
  int file_size = 0;

  DiffInfo() = default;
  DiffInfo(const std::string& download_link, int file_size);

  bool operator==(const DiffInfo& other) const;

  static DiffInfo FromJson(const Json::Value& value);
  // Members keyed by target version text; a null input gives an empty map, and of
  // two names with the same number ("3", "03") the first met wins. The input is
  // not tested for being an object: a scalar has no members (an empty map), and
  // an array's elements have no names, so its first valid element fails "stoi".
  static std::map<int, DiffInfo> BatchFromJson(const Json::Value& value);
};

struct VESKDBUD_EXPORT FileStatus {
  std::string sha384_digest;  // lower-case hex, as GetSha384 makes it

  bool operator==(const FileStatus& other) const;
  bool operator!=(const FileStatus& other) const;

  static FileStatus FromJson(const Json::Value& value);
  static Json::Value ToJson(const FileStatus& status);
  static std::map<std::string, FileStatus> BatchFromJson(const Json::Value& value);
  // An empty map gives an empty object ("{}"), never null.
  static Json::Value BatchToJson(const std::map<std::string, FileStatus>& statuses);
};

struct VESKDBUD_EXPORT DatabaseStatus {
  int data_version = 0;
  int last_fetch_time = 0;
  // Keyed by the file's path relative to the install directory.
  std::map<std::string, FileStatus> file_statuses;

  bool operator==(const DatabaseStatus& other) const;
  bool operator!=(const DatabaseStatus& other) const;

  // "file_statuses" missing or not an object reads as an empty map.
  static DatabaseStatus FromJson(const Json::Value& value);
  static Json::Value ToJson(const DatabaseStatus& status);
};

}  // namespace vesk::dataupdate
