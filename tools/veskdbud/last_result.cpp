#include "last_result.h"

#include <fcntl.h>
#include <json/writer.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <system_error>

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

void RecordLastResult(const dataupdate::IOUtils& /*io*/, const std::string& id,
                      const LastResult& result) noexcept {
  // Replaced whole (temporary file, rename), so a reader never sees half a
  // record, but not flushed record by record: LastResultsFlush flushes the
  // whole run's at once, which keeps a run over many databases from paying
  // two disk flushes for each.
  const std::string path = LastResultPath(id);
  const std::string temp = path + ".tmp-" + std::to_string(getpid());
  try {
    std::ostringstream text;
    Json::StyledStreamWriter("\t").write(text, result.ToJson());
    const std::string document = text.str();
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool written = fd >= 0;
    for (size_t done = 0; written && done < document.size();) {
      const ssize_t n = write(fd, document.data() + done, document.size() - done);
      written = n > 0;
      done += written ? static_cast<size_t>(n) : 0;
    }
    if (fd >= 0 && close(fd) != 0)
      written = false;
    if (!written || std::rename(temp.c_str(), path.c_str()) != 0)
      throw std::system_error(errno, std::generic_category(), "Fail to write: " + path);
  } catch (const std::exception& e) {
    std::remove(temp.c_str());
    std::cerr << "veskdbud: warning: the result was not recorded: " << e.what() << std::endl;
  }
}

LastResultsFlush::~LastResultsFlush() {
  const int fd =
      open(SystemPath("/var/lib/data_update").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    static_cast<void>(syncfs(fd));
    close(fd);
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
