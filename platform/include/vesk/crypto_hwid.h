// Machine identity of the platform's hardware-id library.
//
// The identity is the SHA-256 of the content of /etc/machine-id with leading
// and trailing white space removed, as 64 lower-case hexadecimal digits. With
// VESKDBUD_ROOT set, a machine-id file inside the sandbox is used when it
// exists (even when empty, which then fails); otherwise the host's.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct veskcrypto_hwid {
  char str[129];  // the identity text once veskcrypto_hwid_str succeeded, else ""
} veskcrypto_hwid;

// A context, or NULL on failure. Release with veskcrypto_hwid_free.
veskcrypto_hwid* veskcrypto_hwid_init(void);

// Fills ctx->str with the identity; `selector` is accepted as given. Non-zero
// on success; 0 when the file is missing, unreadable or blank (ctx->str is ""
// and VLIBCErrGet tells why: an errno value, ENODATA for a blank file).
int veskcrypto_hwid_str(veskcrypto_hwid* ctx, int selector);

// Releases a context; NULL is fine.
void veskcrypto_hwid_free(veskcrypto_hwid* ctx);

#ifdef __cplusplus
}
#endif
