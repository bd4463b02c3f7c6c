#include "signing.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <openssl/pem.h>

#include "file_io.h"
#include "publish_error.h"
#include "vesk_internal/info_signature.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::publish {
namespace {

using namespace envelope;

std::string BioText(BIO* bio) {
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(len));
}

void WriteNewFile(const std::string& path, const std::string& content, mode_t mode) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!fd)
    throw PublishError("cannot create " + path + ": " + std::strerror(errno));
  WriteAll(fd.get(), content.data(), content.size(), path);
  if (close(fd.release()) != 0)
    throw PublishError("cannot write " + path + ": " + std::strerror(errno));
}

template <typename Message>
Signature Sign(EVP_PKEY* key, const Message& message) {
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  Signature sig{};
  size_t len = sig.size();
  // Ed25519 hashes internally: one-shot, with no digest named (NULL).
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key) != 1 ||
      EVP_DigestSign(ctx.get(), sig.data(), &len, message.data(), message.size()) != 1 ||
      len != sig.size())
    throw PublishError("Ed25519 signing failed");
  return sig;
}

}  // namespace

EvpPkeyPtr GenerateSigningKey() {
  EvpPkeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
  if (!key)
    throw PublishError("cannot generate an Ed25519 key");
  return key;
}

std::string PublicKeyPem(EVP_PKEY* key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1)
    throw PublishError("cannot encode the public key");
  return BioText(bio.get());
}

void WriteKeyPair(EVP_PKEY* key, const std::string& dir) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
    throw PublishError("cannot encode the private key");
  WriteNewFile(dir + "/private.pem", BioText(bio.get()), 0600);
  WriteNewFile(dir + "/public.pem", PublicKeyPem(key), 0644);
}

EvpPkeyPtr LoadPrivateKey(const std::string& pem_path) {
  const std::string text = ReadSmallFile(pem_path);
  BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  EvpPkeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519)
    throw PublishError(pem_path + " holds no Ed25519 private key");
  return key;
}

KeyId KeyIdOf(EVP_PKEY* key) {
  KeyId id{};
  if (!ComputeKeyId(key, &id))
    throw PublishError("not an Ed25519 key");
  return id;
}

std::string KeyIdHex(EVP_PKEY* key) {
  const KeyId id = KeyIdOf(key);
  return HexOf(id.data(), id.size());
}

void SignArchive(const std::string& archive_path, const std::string& package_path, EVP_PKEY* key,
                 std::uint32_t key_type, const std::optional<std::string>& binding) {
  UniqueFd in(open(archive_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  struct stat st;
  if (!in || fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode))
    throw PublishError("cannot read the archive " + archive_path);
  const auto length = static_cast<std::uint64_t>(st.st_size);
  if (length > kMaxArchiveLength)
    throw PublishError(archive_path + " is too large for a package");

  const std::string temp = package_path + ".tmp";
  UniqueFd out(open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out)
    throw PublishError("cannot create " + temp + ": " + std::strerror(errno));
  EvpMdCtxPtr hash(EVP_MD_CTX_new());
  if (!hash || EVP_DigestInit_ex(hash.get(), EVP_sha512(), nullptr) != 1)
    throw PublishError("SHA-512 unavailable");

  const Header header = EncodeHeader(length);
  WriteAll(out.get(), header.data(), header.size(), temp);
  EVP_DigestUpdate(hash.get(), header.data(), header.size());
  std::vector<char> buf(64 * 1024);
  std::uint64_t copied = 0;
  for (;;) {
    ssize_t n = read(in.get(), buf.data(), buf.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throw PublishError("cannot read " + archive_path + ": " + std::strerror(errno));
    if (n == 0)
      break;
    WriteAll(out.get(), buf.data(), static_cast<size_t>(n), temp);
    EVP_DigestUpdate(hash.get(), buf.data(), static_cast<size_t>(n));
    copied += static_cast<std::uint64_t>(n);
  }
  if (copied != length)
    throw PublishError(archive_path + " changed while it was signed");
  Digest digest{};
  unsigned int digest_len = 0;
  if (EVP_DigestFinal_ex(hash.get(), digest.data(), &digest_len) != 1)
    throw PublishError("SHA-512 failed");

  TrailerFields fields;
  fields.key_id = KeyIdOf(key);
  fields.key_type = key_type;
  fields.archive_length = length;
  std::string section;
  if (binding) {
    if (binding->size() > kMaxBindingLength)
      throw PublishError("the binding of " + package_path + " is too large");
    fields.version = kBoundFormatVersion;
    section.resize(kBindingLengthSize);
    PutBig(reinterpret_cast<std::uint8_t*>(section.data()), binding->size(), kBindingLengthSize);
    section += *binding;
  }
  // The signed message does not cover the signature slot, so sign the unsigned
  // trailer and then fill the slot.
  if (binding) {
    Digest binding_digest{};
    if (EVP_Digest(section.data(), section.size(), binding_digest.data(), &digest_len, EVP_sha512(),
                   nullptr) != 1)
      throw PublishError("SHA-512 failed");
    fields.signature =
        Sign(key, MakeBoundSignedMessage(digest, EncodeTrailer(fields), binding_digest));
  } else {
    fields.signature = Sign(key, MakeSignedMessage(digest, EncodeTrailer(fields)));
  }
  const Trailer trailer = EncodeTrailer(fields);
  WriteAll(out.get(), trailer.data(), trailer.size(), temp);
  WriteAll(out.get(), section.data(), section.size(), temp);
  if (close(out.release()) != 0)
    throw PublishError("cannot write " + temp + ": " + std::strerror(errno));
  RenameFile(temp, package_path);
}

void SignDocument(const std::string& document_path, EVP_PKEY* key, std::uint32_t key_type,
                  const std::string& info_version, std::int64_t issued, std::int64_t expires) {
  namespace sig = info_signature;
  if (info_version.size() > sig::kInfoVersionSize)
    throw PublishError("the document name " + info_version + " is longer than " +
                       std::to_string(sig::kInfoVersionSize) + " bytes");
  const std::string document = ReadSmallFile(document_path);
  sig::Fields fields;
  fields.key_type = key_type;
  fields.issued = issued;
  fields.expires = expires;
  fields.document_length = document.size();
  unsigned int len = 0;
  if (EVP_Digest(document.data(), document.size(), fields.document_digest.data(), &len,
                 EVP_sha512(), nullptr) != 1)
    throw PublishError("SHA-512 failed");
  fields.info_version = info_version;
  fields.key_id = KeyIdOf(key);
  const sig::Bytes unsigned_bytes = sig::Encode(fields);
  std::array<std::uint8_t, sig::kSignedSize> message{};
  std::memcpy(message.data(), unsigned_bytes.data(), message.size());
  fields.signature = Sign(key, message);
  const sig::Bytes bytes = sig::Encode(fields);
  WriteFileAtomically(DocumentSignaturePath(document_path),
                      std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

std::string DocumentSignaturePath(const std::string& document_path) {
  return document_path + ".sig";
}

}  // namespace vesk::publish
