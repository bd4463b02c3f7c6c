#include "dataupdate/records.h"

#include <string>

#include "dataupdate/error.h"

namespace vesk::dataupdate {

RemoteInfo::RemoteInfo(int data_version_in, int last_fetch_time_in, bool deprecated_in,
                       const std::string& download_link_in)
    : data_version(data_version_in),
      last_fetch_time(last_fetch_time_in),
      deprecated(deprecated_in),
      download_link(download_link_in) {}

bool RemoteInfo::operator==(const RemoteInfo& other) const {
  return data_version == other.data_version && last_fetch_time == other.last_fetch_time &&
         deprecated == other.deprecated && download_link == other.download_link;
}

RemoteInfo RemoteInfo::FromJson(const Json::Value& value) {
  // All members are tested before any is converted, so no partial record escapes.
  // The value itself is tested first: on an array or a scalar the const member
  // access would throw Json::LogicError instead of reading null (null fails anyway).
  if (!value.isObject() || !value["data_version"].isString() || !value["last_fetch_time"].isInt() ||
      !value["deprecated"].isBool() || !value["download_link"].isString()) {
    throw UpdateError("Invalid json object for RemoteInfo");
  }
  return RemoteInfo(std::stoi(value["data_version"].asString()), value["last_fetch_time"].asInt(),
                    value["deprecated"].asBool(), value["download_link"].asString());
}

Json::Value RemoteInfo::ToJson(const RemoteInfo& info) {
  Json::Value json;
  json["data_version"] = std::to_string(info.data_version);
  json["last_fetch_time"] = info.last_fetch_time;
  json["deprecated"] = info.deprecated;
  json["download_link"] = info.download_link;
  return json;
}

DiffInfo::DiffInfo(const std::string& download_link_in, int file_size_in)
    : download_link(download_link_in), file_size(file_size_in) {}

bool DiffInfo::operator==(const DiffInfo& other) const {
  return download_link == other.download_link && file_size == other.file_size;
}

DiffInfo DiffInfo::FromJson(const Json::Value& value) {
  if (!value.isObject() || !value["download_link"].isString() || !value["file_size"].isInt()) {
    throw UpdateError("Invalid json object for DiffInfo");
  }
  return DiffInfo(value["download_link"].asString(), value["file_size"].asInt());
}

std::map<int, DiffInfo> DiffInfo::BatchFromJson(const Json::Value& value) {
  std::map<int, DiffInfo> diffs;
  for (auto it = value.begin(); it != value.end(); ++it) {
    DiffInfo diff = FromJson(*it);
    diffs.emplace(std::stoi(it.name()), diff);  // emplace never replaces the first met
  }
  return diffs;
}

bool FileStatus::operator==(const FileStatus& other) const {
  return sha384_digest == other.sha384_digest;
}

bool FileStatus::operator!=(const FileStatus& other) const {
  return !(*this == other);
}

FileStatus FileStatus::FromJson(const Json::Value& value) {
  if (!value.isObject() || !value["sha384_digest"].isString()) {
    throw UpdateError("Invalid json object for FileStatus");
  }
  return FileStatus{value["sha384_digest"].asString()};
}

Json::Value FileStatus::ToJson(const FileStatus& status) {
  Json::Value json;
  json["sha384_digest"] = status.sha384_digest;
  return json;
}

std::map<std::string, FileStatus> FileStatus::BatchFromJson(const Json::Value& value) {
  if (!value.isObject())
    throw UpdateError("Invalid json object for FileStatuses");
  std::map<std::string, FileStatus> statuses;
  for (const std::string& name : value.getMemberNames()) {
    statuses.emplace(name, FromJson(value[name]));
  }
  return statuses;
}

Json::Value FileStatus::BatchToJson(const std::map<std::string, FileStatus>& statuses) {
  Json::Value json(Json::objectValue);
  for (const auto& [name, status] : statuses)
    json[name] = ToJson(status);
  return json;
}

bool DatabaseStatus::operator==(const DatabaseStatus& other) const {
  return data_version == other.data_version && last_fetch_time == other.last_fetch_time &&
         file_statuses == other.file_statuses;
}

bool DatabaseStatus::operator!=(const DatabaseStatus& other) const {
  return !(*this == other);
}

DatabaseStatus DatabaseStatus::FromJson(const Json::Value& value) {
  if (!value.isObject() || !value["data_version"].isString() || !value["last_fetch_time"].isInt()) {
    throw UpdateError("Invalid json object for DatabaseStatus");
  }
  DatabaseStatus status;
  const Json::Value& files = value["file_statuses"];
  if (files.isObject())
    status.file_statuses = FileStatus::BatchFromJson(files);
  status.data_version = std::stoi(value["data_version"].asString());
  status.last_fetch_time = value["last_fetch_time"].asInt();
  return status;
}

Json::Value DatabaseStatus::ToJson(const DatabaseStatus& status) {
  Json::Value json;
  json["data_version"] = std::to_string(status.data_version);
  json["last_fetch_time"] = status.last_fetch_time;
  json["file_statuses"] = FileStatus::BatchToJson(status.file_statuses);
  return json;
}

}  // namespace vesk::dataupdate
