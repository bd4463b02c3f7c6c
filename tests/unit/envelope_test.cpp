// The envelope's fields as decoded (vesk_internal/envelope.h). Its bytes are
// pinned by the package built by hand from the documented layout
// (package_envelope_test); these are the decodings that no small package reaches.
#include "vesk_internal/envelope.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include "vesk_internal/ossl_ptr.h"

using namespace vesk::envelope;

TEST(Envelope, LengthsUseAllEightBytesAndFieldsDecodeAsEncoded) {
  const Header h = EncodeHeader(0x0102030405060708ULL);
  EXPECT_EQ(HeaderArchiveLength(h), 0x0102030405060708ULL);
  EXPECT_EQ(h[8], 0x01);
  EXPECT_EQ(h[15], 0x08);

  TrailerFields f;
  f.signature.fill(0xaa);
  f.key_id.fill(0xbb);
  f.key_type = 0x01020304;
  f.archive_length = 0x1122334455667788ULL;
  TrailerFields back;
  ASSERT_TRUE(DecodeTrailer(EncodeTrailer(f), &back));
  EXPECT_EQ(back.signature, f.signature);
  EXPECT_EQ(back.key_id, f.key_id);
  EXPECT_EQ(back.key_type, 0x01020304u);
  EXPECT_EQ(back.version, 1u);
  EXPECT_EQ(back.archive_length, 0x1122334455667788ULL);
}

TEST(Envelope, OnlyEd25519KeysHaveAKeyId) {
  vesk::EvpPkeyPtr rsa(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024}));
  ASSERT_TRUE(rsa);
  KeyId id;
  EXPECT_FALSE(ComputeKeyId(rsa.get(), &id));
}
