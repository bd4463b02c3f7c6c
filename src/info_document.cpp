#include "info_document.h"

#include <time.h>

#include <climits>
#include <string>

#include "dataupdate/error.h"
#include "vesk/archive.h"
#include "vesk/root.h"
#include "vesk/signed_document.h"

namespace vesk::dataupdate {
namespace {

constexpr int kKeyType = 6;

// Kept with the statuses, not the cache: clearing a cache must not reopen
// the door to replays.
std::string AcceptedPath() {
  return platform::RootPath("/var/lib/data_update/database_info_accepted.json");
}

std::string Utc(long long seconds) {
  const auto t = static_cast<time_t>(seconds);
  struct tm tm {};
  char text[32] = "?";
  if (gmtime_r(&t, &tm) != nullptr)
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

std::string Reason(int code, const std::string& detail) {
  switch (code) {
    case VESKARCHIVE_E_OPEN:
      return "no readable signature or document (" + detail + ")";
    case VESKARCHIVE_E_MALFORMED:
      return "malformed signature (" + detail + ")";
    case VESKARCHIVE_E_KEY_TYPE:
    case VESKARCHIVE_E_UNKNOWN_KEY:
      return "not signed by a trusted key (" + detail + ")";
    case VESKARCHIVE_E_BAD_SIGNATURE:
      return "bad signature (" + detail + ")";
    default:
      return "cannot verify (" + detail + ")";
  }
}

long long AcceptedIssueTime(const IOUtils& io, const std::string& info_version) {
  try {
    const Json::Value accepted = io.ReadJson(AcceptedPath());
    const Json::Value& entry = accepted.isObject() ? accepted[info_version] : Json::Value();
    if (entry.isObject() && entry["issued"].isInt64())
      return entry["issued"].asInt64();
  } catch (const std::exception&) {
    // None yet (or unreadable): every validly signed, unexpired document is newer.
  }
  return LLONG_MIN;
}

}  // namespace

std::string SignaturePathOf(const std::string& document) {
  return document + ".sig";
}

long long CheckSignedInfo(const IOUtils& io, const std::string& document,
                          const std::string& signature, const std::string& info_version) {
  vesksigned_period period{};
  char detail[512] = "";
  const int code = vesksigned_document_verify(document.c_str(), signature.c_str(), kKeyType,
                                              info_version.c_str(), &period, detail, sizeof detail);
  if (code != VESKARCHIVE_OK)
    throw UpdateError("Refused database info: " + Reason(code, detail));
  const long long now = static_cast<long long>(time(nullptr));
  if (now >= period.expires)
    throw UpdateError("Refused database info: expired at " + Utc(period.expires) + " (now " +
                      Utc(now) + ")");
  const long long accepted = AcceptedIssueTime(io, info_version);
  if (period.issued < accepted)
    throw UpdateError("Refused database info: issued at " + Utc(period.issued) +
                      ", before the document accepted earlier (issued at " + Utc(accepted) +
                      "): a replay");
  return period.issued;
}

void RecordAcceptedInfo(const IOUtils& io, const std::string& info_version, long long issued) {
  Json::Value accepted;
  try {
    accepted = io.ReadJson(AcceptedPath());
  } catch (const std::exception&) {
  }
  if (!accepted.isObject())
    accepted = Json::Value(Json::objectValue);
  accepted[info_version]["issued"] = static_cast<Json::Int64>(issued);
  io.VeskMkdir(platform::RootPath("/var/lib/data_update"));
  io.WriteJson(AcceptedPath(), accepted);
}

}  // namespace vesk::dataupdate
