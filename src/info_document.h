// The signed database-info document: its detached signature checked with the
// trusted package keys, its validity period against the clock, and its issue
// time against the newest document accepted before, so that a forged, expired
// or replayed document is never acted on.
#pragma once

#include <string>

#include "dataupdate/io_utils.h"

namespace vesk::dataupdate {

// "<cache>.sig": the accepted document's signature, kept beside it.
std::string SignaturePathOf(const std::string& document);

// The issue time of `document` signed by `signature` under the name
// `info_version`. Throws UpdateError "Refused database info: <reason>" when the
// signature is missing, malformed, by an untrusted key or not over these bytes,
// when the document has expired, or when it was issued before the last one
// accepted for `info_version`.
long long CheckSignedInfo(const IOUtils& io, const std::string& document,
                          const std::string& signature, const std::string& info_version);

// Remembers `issued` as the issue time of the newest accepted document of
// `info_version`; older ones are replays from then on. Durable before it returns.
void RecordAcceptedInfo(const IOUtils& io, const std::string& info_version, long long issued);

}  // namespace vesk::dataupdate
