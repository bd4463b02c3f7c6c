// Detached signatures of the database-info document (docs/package-format.md):
// the document's bytes, its name and its validity period signed with Ed25519 by
// a trusted key of the archive library's key types. Whether a document is still
// valid now, and newer than one accepted before, is the caller's decision; this
// call only says who signed which bytes for which period.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vesksigned_period {
  long long issued;   // seconds since the epoch
  long long expires;  // seconds since the epoch
} vesksigned_period;

// Checks that `signature_path` holds a signature, by a trusted key of `key_type`,
// over exactly the bytes of `document_path` under the name `info_version`. On
// success fills `period` and returns VESKARCHIVE_OK (0); otherwise returns one of
// the archive library's error codes (VESKARCHIVE_E_OPEN, _MALFORMED, _KEY_TYPE,
// _UNKNOWN_KEY, _BAD_SIGNATURE, _INVALID, _INTERNAL) and writes a one-line reason
// into `reason` (NUL-terminated, cut to `reason_size`). Never throws.
int vesksigned_document_verify(const char* document_path, const char* signature_path, int key_type,
                               const char* info_version, vesksigned_period* period, char* reason,
                               size_t reason_size);

#ifdef __cplusplus
}
#endif
