// The outcome of the tool's last update, fix or forced install of a database,
// kept in "/var/lib/data_update/<id>/last_result.json" (below $VESKDBUD_ROOT)
// next to the library's version.json, so `veskdbud status` can show it.
//
// Written whole to a temporary file and renamed into place, so a reader never
// sees half a document; flushed to disk once at the end of the run. Runs of the library by other
// callers do not write it.
//
//   {
//     "operation" : "update",          update | fix | force-install
//     "ok" : true,
//     "outcome" : "updated",           installed | updated | up to date |
//                                      repaired | intact | failed
//     "message" : "",                  the error text when "ok" is false
//     "time" : 1750000000,             seconds since the epoch, when it ended
//     "version_before" : 20250601,     null when nothing was installed
//     "version_after" : 20250604,      null when nothing is installed
//     "duration_seconds" : 2.5,        how long the operation ran
//     "bytes_downloaded" : 1234,       null when not counted (the user's WGETRC)
//     "last_success_time" : 1750000000 when the database last succeeded
//   }                                  (kept over failures); null: never
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

#include "dataupdate/io_utils.h"

namespace vesk::cli {

struct LastResult {
  std::string operation;
  bool ok = false;
  std::string outcome;
  std::string message;
  long long time = 0;
  int version_before = -1;  // -1: nothing installed
  int version_after = -1;
  double duration_seconds = 0;
  std::optional<std::uint64_t> bytes_downloaded;
  std::optional<long long> last_success_time;

  Json::Value ToJson() const;
};

std::string LastResultPath(const std::string& id);

// Records `result` for `id`. Never throws: a failure to write is reported as
// one warning line on stderr, since the operation itself is done.
void RecordLastResult(const dataupdate::IOUtils& io, const std::string& id,
                      const LastResult& result) noexcept;

// Flushes the records of this run to disk when it goes out of scope: one
// flush of the file system holding them, whatever the number of databases.
struct LastResultsFlush {
  LastResultsFlush() = default;
  LastResultsFlush(const LastResultsFlush&) = delete;
  LastResultsFlush& operator=(const LastResultsFlush&) = delete;
  ~LastResultsFlush();
};

// The recorded document, or null when there is none or it cannot be read.
Json::Value ReadLastResult(const dataupdate::IOUtils& io, const std::string& id);

// "update: updated" or "update: FAILED" for a recorded document; "-" for null.
std::string LastResultSummary(const Json::Value& result);

}  // namespace vesk::cli
