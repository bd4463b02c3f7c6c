// Owners for the OpenSSL objects the package code uses, so every key, context
// and BIO is released on every path.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>

namespace vesk {

struct EvpPkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct EvpPkeyCtxFree {
  void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }
};
struct EvpMdCtxFree {
  void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct BioFree {
  void operator()(BIO* p) const { BIO_free_all(p); }
};

using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyFree>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, EvpPkeyCtxFree>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;

}  // namespace vesk
