// Signed package archives of the platform's archive library.
//
// A package is a tar archive (optionally gzip, xz or zstd compressed) inside a
// signed envelope (docs/package-format.md). Opening verifies the envelope and its
// Ed25519 signature against the trusted keys of a key type; extraction reads the
// verified bytes again through the same open descriptor and refuses every entry
// that could write outside the target directory before anything is written.
//
// Calls never throw and never abort; failures are reported by the result (NULL or
// 0) with an error code kept in the handle. A handle is used by one thread at a
// time. Extraction changes the process's working directory to the target for its
// duration and restores it before returning.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct veskarchive veskarchive;

// Extraction flags for veskarchive_extract_multiple.
// Without it an object already present at an entry's path (other than a directory
// met by a directory entry) fails the extraction. With it such an object (file,
// symbolic link or empty directory) is removed and replaced by the entry, and a
// symbolic link met on the way to an entry is replaced by a real directory
// instead of being followed.
#define VESKARCHIVE_EXTRACT_OVERWRITE 4

// Error codes kept in the handle (docs/package-format.md explains each).
enum {
  VESKARCHIVE_OK = 0,
  VESKARCHIVE_E_INVALID = 1,         // bad argument or call order
  VESKARCHIVE_E_OPEN = 2,            // the package cannot be opened or read
  VESKARCHIVE_E_NOT_REGULAR = 3,     // the package is not a regular file
  VESKARCHIVE_E_NO_ENVELOPE = 4,     // no envelope: empty file or no header magic
  VESKARCHIVE_E_MALFORMED = 5,       // envelope fields wrong or trailing bytes
  VESKARCHIVE_E_TRUNCATED = 6,       // shorter than its header announces
  VESKARCHIVE_E_KEY_TYPE = 7,        // signed for another key type
  VESKARCHIVE_E_UNKNOWN_KEY = 8,     // no trusted key of the key type has its key id
  VESKARCHIVE_E_BAD_SIGNATURE = 9,   // the signature does not match the bytes
  VESKARCHIVE_E_CHANGED = 10,        // the package changed after verification
  VESKARCHIVE_E_FORMAT = 11,         // the verified archive is not a readable tar
  VESKARCHIVE_E_ABSOLUTE_PATH = 12,  // an entry name begins with "/"
  VESKARCHIVE_E_DOTDOT = 13,         // an entry name has a ".." component
  VESKARCHIVE_E_LINK_OUTSIDE = 14,   // a symbolic link may lead outside the target
  VESKARCHIVE_E_HARDLINK = 15,       // a hard link entry
  VESKARCHIVE_E_DEVICE = 16,         // a character or block device entry
  VESKARCHIVE_E_FIFO = 17,           // a FIFO entry
  VESKARCHIVE_E_SPECIAL = 18,        // a socket or an entry of unknown type
  VESKARCHIVE_E_THROUGH_LINK = 19,   // an entry lies below a symbolic link
  VESKARCHIVE_E_BAD_NAME = 20,       // an empty or unreadable entry name
  VESKARCHIVE_E_EXISTS = 21,         // the entry's path exists and overwriting is off
  VESKARCHIVE_E_WRITE = 22,          // writing into the target failed
  VESKARCHIVE_E_ENTRY_MISSING = 23,  // a requested entry is not in the archive
  VESKARCHIVE_E_INTERNAL = 24,       // out of memory or a crypto library failure
};

// A handle whose extraction target is the existing directory `target_dir`, or
// NULL when it cannot be made. The directory is held open from here on, so a
// later rename of the path does not redirect the extraction.
veskarchive* veskarchive_init(const char* target_dir);

// Opens `package` and verifies its envelope and signature against the trusted
// keys of `key_type` ("/usr/vesk/etc/keys/<key_type>/*.pem", below VESKDBUD_ROOT
// when set). Non-zero on success; 0 on failure with the reason in the handle.
// The package stays open in the handle until it is freed or opened again.
int veskarchive_open_with_keytype(veskarchive* handle, const char* package, int key_type);

// Extracts the entries named in the NULL-terminated list `entries` (NULL: all; a
// directory name selects everything below it) into the target. `flags` is 0 or
// VESKARCHIVE_EXTRACT_OVERWRITE. Every entry is checked before the first is
// written. Non-zero on success; 0 on failure with the reason kept.
int veskarchive_extract_multiple(veskarchive* handle, const char* const* entries, int flags);

// The binding of the package verified by the last successful open: the signed
// JSON document naming the database, version, kind and manifest it installs
// (docs/package-format.md), `*size` bytes, not NUL-terminated, valid until the
// handle is opened again or freed. NULL (and `*size` 0) when no package is open
// or the package is of format version 1, which carries none.
const char* veskarchive_binding(const veskarchive* handle, size_t* size);

// The error code kept in the handle (VESKARCHIVE_OK when none; VESKARCHIVE_E_INVALID
// for a NULL handle).
int veskarchive_error(const veskarchive* handle);

// The file or entry concerned by the last failure and the reason, for logs ("" when none).
const char* veskarchive_error_detail(const veskarchive* handle);

// A short English text for an error code.
const char* veskarchive_strerror(int code);

void veskarchive_free(veskarchive* handle);

#ifdef __cplusplus
}
#endif
