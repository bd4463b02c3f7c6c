// Signed package archives of the platform's archive library.
//
// A package is a tar archive (optionally gzip, xz or zstd compressed) inside a
// signed envelope (docs/package-format.md). The signature is verified before any
// byte is extracted; entries that would leave the target directory are refused.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct veskarchive veskarchive;

// Extraction flags for veskarchive_extract_multiple.
#define VESKARCHIVE_EXTRACT_OVERWRITE 4  // replace existing files in the target

// A handle whose extraction target is the existing directory `target_dir`, or
// NULL when it cannot be made.
veskarchive* veskarchive_init(const char* target_dir);

// Opens `package` and verifies its envelope and signature against the trusted
// keys of `key_type` ("/usr/vesk/etc/keys/<key_type>/*.pem", below VESKDBUD_ROOT
// when set). Non-zero on success; 0 on failure with the reason in the handle.
int veskarchive_open_with_keytype(veskarchive* handle, const char* package, int key_type);

// Extracts the entries named in the NULL-terminated list `entries` (NULL: all)
// into the target. Non-zero on success; 0 on failure with the reason kept.
int veskarchive_extract_multiple(veskarchive* handle, const char* const* entries, int flags);

// The error code kept in the handle (0 when none); codes are listed in
// docs/package-format.md.
int veskarchive_error(const veskarchive* handle);

// A short English text for an error code.
const char* veskarchive_strerror(int code);

void veskarchive_free(veskarchive* handle);

#ifdef __cplusplus
}
#endif
