#include "last_result.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <system_error>

#include "system_paths.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::cli {
namespace {

Json::Value VersionJson(int version) {
  return version < 0 ? Json::Value() : Json::Value(version);
}

bool WriteAt0(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
    if (n <= 0)
      return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes `text` into the spare file beside `path` and exchanges the two in one
// step, so a reader sees the old record or the new one. Freeing the blocks of
// a file that reached the disk is the dearest step of replacing it by a new
// file (half a millisecond on ext4 with online discard, for each database of
// a run); the spare is overwritten in place and no run allocates or frees any.
// Writers of the same record take turns on the spare's lock and check that
// what they locked is still the spare. False when this cannot be done here (no
// exchange on this file system): the caller replaces the file instead.
bool ExchangeWithSpare(const std::string& path, const std::string& text) {
  const std::string spare = path + ".spare";
  for (int attempt = 0; attempt < 8; ++attempt) {
    // Never blocks in the open (a FIFO put there) nor follows a link.
    UniqueFd fd(
        open(spare.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
    struct stat held {
    }, named{};
    if (!fd || flock(fd.get(), LOCK_EX) != 0 || fstat(fd.get(), &held) != 0 ||
        !S_ISREG(held.st_mode))
      return false;
    if (stat(spare.c_str(), &named) != 0 || named.st_ino != held.st_ino ||
        named.st_dev != held.st_dev)
      continue;  // another writer exchanged it meanwhile
    if (!WriteAt0(fd.get(), text) || (static_cast<size_t>(held.st_size) > text.size() &&
                                      ftruncate(fd.get(), static_cast<off_t>(text.size())) != 0))
      return false;
    if (renameat2(AT_FDCWD, spare.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == 0)
      return true;
    return errno == ENOENT && std::rename(spare.c_str(), path.c_str()) == 0;  // the first record
  }
  return false;
}

// A new file renamed over the record.
bool ReplaceWithNewFile(const std::string& path, const std::string& text) {
  const std::string temp = path + ".tmp-" + std::to_string(getpid());
  UniqueFd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  const bool written = fd && WriteAt0(fd.get(), text) && close(fd.release()) == 0;
  if (written && std::rename(temp.c_str(), path.c_str()) == 0)
    return true;
  const int error = errno;
  std::remove(temp.c_str());
  errno = error;
  return false;
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
  // Replaced whole, so a reader never sees half a record, but not flushed
  // record by record: LastResultsFlush flushes the whole run's at once, which
  // keeps a run over many databases from paying two disk flushes for each.
  const std::string path = LastResultPath(id);
  try {
    std::ostringstream text;
    Json::StyledStreamWriter("\t").write(text, result.ToJson());
    const std::string document = text.str();
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    if (!ExchangeWithSpare(path, document) && !ReplaceWithNewFile(path, document))
      throw std::system_error(errno, std::generic_category(), "Fail to write: " + path);
  } catch (const std::exception& e) {
    std::cerr << "veskdbud: warning: the result was not recorded: " << e.what() << std::endl;
  }
}

LastResultsFlush::~LastResultsFlush() {
  const UniqueFd fd(
      open(SystemPath("/var/lib/data_update").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd)
    static_cast<void>(syncfs(fd.get()));
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
