// Verification of the database-info document's detached signature.
#include "vesk/signed_document.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "archive_keys.h"
#include "archive_status.h"
#include "archive_verify.h"
#include "vesk/archive.h"
#include "vesk_internal/info_signature.h"
#include "vesk_internal/ossl_ptr.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::platform::archive {
namespace {

// The document is a small text; nothing larger is read into memory.
constexpr std::uint64_t kMaxDocumentSize = std::uint64_t{256} << 20;

Status ReadWhole(const std::string& path, std::uint64_t limit, std::vector<std::uint8_t>* out) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0)
    return Fail(VESKARCHIVE_E_OPEN, path + ": " + std::strerror(errno));
  if (!S_ISREG(st.st_mode))
    return Fail(VESKARCHIVE_E_OPEN, path + ": not a regular file");
  if (static_cast<std::uint64_t>(st.st_size) > limit)
    return Fail(VESKARCHIVE_E_MALFORMED,
                path + ": larger than " + std::to_string(limit) + " bytes");
  out->resize(static_cast<size_t>(st.st_size));
  const ssize_t n = PreadFully(fd.get(), out->data(), out->size(), 0);
  if (n < 0)
    return Fail(VESKARCHIVE_E_OPEN, path + ": " + std::strerror(errno));
  if (static_cast<size_t>(n) != out->size())
    return Fail(VESKARCHIVE_E_OPEN, path + ": changed while it was read");
  return {};
}

Status Verify(const std::string& document, const std::string& signature, int key_type,
              const std::string& info_version, vesksigned_period* period) {
  namespace sig = info_signature;
  std::vector<std::uint8_t> sig_bytes;
  Status s = ReadWhole(signature, sig::kSize, &sig_bytes);
  if (!s.ok())
    return s;
  sig::Bytes raw{};
  sig::Fields fields;
  if (sig_bytes.size() != raw.size())
    return Fail(VESKARCHIVE_E_MALFORMED, signature + ": " + std::to_string(sig_bytes.size()) +
                                             " bytes, a signature has " +
                                             std::to_string(raw.size()));
  std::memcpy(raw.data(), sig_bytes.data(), raw.size());
  if (!sig::Decode(raw, &fields))
    return Fail(VESKARCHIVE_E_MALFORMED, signature + ": not a document signature");
  if (fields.key_type != static_cast<std::uint32_t>(key_type))
    return Fail(VESKARCHIVE_E_KEY_TYPE, signature + ": signed for key type " +
                                            std::to_string(fields.key_type) + ", not " +
                                            std::to_string(key_type));
  EvpPkeyPtr key;
  s = FindTrustedKey(key_type, fields.key_id, &key);
  if (!s.ok())
    return Fail(s.code, signature + ": " + s.detail);
  s = VerifySignature(key.get(), fields.signature, raw.data(), sig::kSignedSize);
  if (!s.ok())
    return Fail(s.code, signature + ": " + s.detail);

  // The signature is genuine; now it must be about these bytes under this name.
  if (fields.info_version != info_version)
    return Fail(VESKARCHIVE_E_BAD_SIGNATURE, signature + ": signed as document '" +
                                                 fields.info_version + "', not '" + info_version +
                                                 "'");
  std::vector<std::uint8_t> doc_bytes;
  s = ReadWhole(document, kMaxDocumentSize, &doc_bytes);
  if (!s.ok())
    return s;
  envelope::Digest digest{};
  unsigned int len = 0;
  if (EVP_Digest(doc_bytes.data(), doc_bytes.size(), digest.data(), &len, EVP_sha512(), nullptr) !=
      1)
    return Fail(VESKARCHIVE_E_INTERNAL, "SHA-512 failed");
  if (doc_bytes.size() != fields.document_length || digest != fields.document_digest)
    return Fail(VESKARCHIVE_E_BAD_SIGNATURE, document + ": the document is not the one signed");
  period->issued = fields.issued;
  period->expires = fields.expires;
  return {};
}

}  // namespace
}  // namespace vesk::platform::archive

extern "C" int vesksigned_document_verify(const char* document_path, const char* signature_path,
                                          int key_type, const char* info_version,
                                          vesksigned_period* period, char* reason,
                                          size_t reason_size) {
  using vesk::platform::archive::Fail;
  using vesk::platform::archive::Status;
  Status s;
  try {
    if (document_path == nullptr || signature_path == nullptr || info_version == nullptr ||
        period == nullptr || key_type < 0)
      s = Fail(VESKARCHIVE_E_INVALID, "invalid argument");
    else
      s = vesk::platform::archive::Verify(document_path, signature_path, key_type, info_version,
                                          period);
  } catch (const std::exception& e) {
    s = Fail(VESKARCHIVE_E_INTERNAL, e.what());
  } catch (...) {
    s = Fail(VESKARCHIVE_E_INTERNAL, "unknown failure");
  }
  if (reason != nullptr && reason_size > 0) {
    const size_t n = std::min(s.detail.size(), reason_size - 1);
    std::memcpy(reason, s.detail.data(), n);
    reason[n] = '\0';
  }
  return s.code;
}
