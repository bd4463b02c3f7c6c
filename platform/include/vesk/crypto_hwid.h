// Machine identity of the platform's hardware-id library.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct veskcrypto_hwid {
  char str[129];  // the identity text once veskcrypto_hwid_str succeeded
} veskcrypto_hwid;

// A context, or NULL on failure.
veskcrypto_hwid* veskcrypto_hwid_init(void);

// Fills ctx->str with a stable lower-case hexadecimal identity derived (SHA-256)
// from /etc/machine-id; `selector` is accepted as given. Non-zero on success.
int veskcrypto_hwid_str(veskcrypto_hwid* ctx, int selector);

void veskcrypto_hwid_free(veskcrypto_hwid* ctx);

#ifdef __cplusplus
}
#endif
