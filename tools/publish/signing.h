// Ed25519 keys and the signed envelope around an archive (layout in
// vesk_internal/envelope.h and docs/package-format.md). Ed25519 signatures are
// deterministic, so the same archive and key always give the same package.
// Failures throw PublishError.
#pragma once

#include <cstdint>
#include <string>

#include "vesk_internal/envelope.h"
#include "vesk_internal/ossl_ptr.h"

namespace vesk::publish {

EvpPkeyPtr GenerateSigningKey();

// Writes DIR/private.pem (PKCS#8, mode 0600) and DIR/public.pem (SubjectPublicKeyInfo);
// refuses to replace existing key files.
void WriteKeyPair(EVP_PKEY* key, const std::string& dir);

EvpPkeyPtr LoadPrivateKey(const std::string& pem_path);
std::string PublicKeyPem(EVP_PKEY* key);

envelope::KeyId KeyIdOf(EVP_PKEY* key);
std::string KeyIdHex(EVP_PKEY* key);

// Streams `archive_path` into `package_path` wrapped in the signed envelope.
void SignArchive(const std::string& archive_path, const std::string& package_path, EVP_PKEY* key,
                 std::uint32_t key_type);

}  // namespace vesk::publish
