// The trusted public keys of each key type: the PEM files of
// "/usr/vesk/etc/keys/<type>/" (below VESKDBUD_ROOT when set).
#pragma once

#include <string>

#include "archive_status.h"
#include "vesk_internal/envelope.h"
#include "vesk_internal/ossl_ptr.h"

namespace vesk::platform::archive {

// The resolved directory holding the trusted keys of `key_type`.
std::string KeyDirectory(int key_type);

// The trusted Ed25519 key of `key_type` whose key id is `key_id`. Files not ending
// in ".pem", unreadable ones and those holding no Ed25519 public key are skipped,
// so one bad file does not disable the others. VESKARCHIVE_E_UNKNOWN_KEY when none
// matches (also when the directory is missing).
Status FindTrustedKey(int key_type, const envelope::KeyId& key_id, EvpPkeyPtr* key);

}  // namespace vesk::platform::archive
