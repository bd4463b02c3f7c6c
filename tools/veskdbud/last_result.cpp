#include "last_result.h"

#include <iostream>

#include "system_paths.h"

namespace vesk::cli {
namespace {

Json::Value VersionJson(int version) {
  return version < 0 ? Json::Value() : Json::Value(version);
}

}  // namespace

Json::Value LastResult::ToJson() const {
  Json::Value json(Json::objectValue);
  json["operation"] = operation;
  json["ok"] = ok;
  json["outcome"] = outcome;
  json["message"] = message;
  json["time"] = Json::Int64(time);
  json["version_before"] = VersionJson(version_before);
  json["version_after"] = VersionJson(version_after);
  json["duration_seconds"] = duration_seconds;
  json["bytes_downloaded"] =
      bytes_downloaded ? Json::Value(Json::UInt64(*bytes_downloaded)) : Json::Value();
  json["last_success_time"] =
      last_success_time ? Json::Value(Json::Int64(*last_success_time)) : Json::Value();
  return json;
}

std::string LastResultPath(const std::string& id) {
  return SystemPath("/var/lib/data_update/" + id + "/last_result.json");
}

void RecordLastResult(const dataupdate::IOUtils& io, const std::string& id,
                      const LastResult& result) noexcept {
  // WriteJson replaces the file whole (temporary file, rename), so a reader
  // never sees half a record.
  try {
    io.WriteJson(LastResultPath(id), result.ToJson());
  } catch (const std::exception& e) {
    std::cerr << "veskdbud: warning: the result was not recorded: " << e.what() << std::endl;
  }
}

Json::Value ReadLastResult(const dataupdate::IOUtils& io, const std::string& id) {
  try {
    Json::Value json = io.ReadJson(LastResultPath(id));
    return json.isObject() ? json : Json::Value();
  } catch (const std::exception&) {
    return Json::Value();
  }
}

std::string LastResultSummary(const Json::Value& result) {
  auto text = [&result](const char* key) {
    return result[key].isString() ? result[key].asString() : std::string("?");
  };
  if (!result.isObject())
    return "-";
  const bool ok = result["ok"].isBool() && result["ok"].asBool();
  return text("operation") + ": " + (ok ? text("outcome") : "FAILED");
}

}  // namespace vesk::cli
