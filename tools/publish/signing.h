// Ed25519 keys and the signed envelope around an archive (layout in
// vesk_internal/envelope.h and docs/package-format.md). Ed25519 signatures are
// deterministic, so the same archive and key always give the same package.
// Failures throw PublishError.
#pragma once

#include <cstdint>
#include <optional>
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

// Streams `archive_path` into `package_path` wrapped in the signed envelope:
// format 2 carrying `binding` (the JSON text saying what the package installs)
// when given, else format 1, which the update engine refuses.
void SignArchive(const std::string& archive_path, const std::string& package_path, EVP_PKEY* key,
                 std::uint32_t key_type, const std::optional<std::string>& binding = std::nullopt);

// Writes the detached signature of the database-info document at `document_path`
// (layout in vesk_internal/info_signature.h) to DocumentSignaturePath(), valid
// from `issued` to `expires` (seconds since the epoch) under the name `info_version`.
void SignDocument(const std::string& document_path, EVP_PKEY* key, std::uint32_t key_type,
                  const std::string& info_version, std::int64_t issued, std::int64_t expires);

// "<document>.sig", beside the document.
std::string DocumentSignaturePath(const std::string& document_path);

}  // namespace vesk::publish
