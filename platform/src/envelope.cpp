#include "vesk_internal/envelope.h"

#include <openssl/evp.h>

namespace vesk::envelope {

bool ComputeKeyId(EVP_PKEY* key, KeyId* id) {
  if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_ED25519)
    return false;
  unsigned char raw[kRawPublicKeySize];
  size_t raw_len = sizeof raw;
  if (EVP_PKEY_get_raw_public_key(key, raw, &raw_len) != 1 || raw_len != sizeof raw)
    return false;
  unsigned int out_len = 0;
  return EVP_Digest(raw, raw_len, id->data(), &out_len, EVP_sha256(), nullptr) == 1 &&
         out_len == kKeyIdSize;
}

}  // namespace vesk::envelope
