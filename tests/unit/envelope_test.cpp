// The envelope's byte layout (vesk_internal/envelope.h) and key ids.
#include "vesk_internal/envelope.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include "vesk_internal/ossl_ptr.h"

using namespace vesk::envelope;

namespace {

std::string Hex(const std::uint8_t* p, size_t n) {
  static const char kHex[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += kHex[p[i] >> 4];
    s += kHex[p[i] & 15];
  }
  return s;
}

}  // namespace

TEST(Envelope, HeaderIsTheMagicThenTheBigEndianLength) {
  const Header h = EncodeHeader(0x0102030405060708ULL);
  EXPECT_EQ(std::string(h.begin(), h.begin() + 8), "VESKPKG1");
  EXPECT_EQ(Hex(h.data() + 8, 8), "0102030405060708");
  EXPECT_EQ(HeaderArchiveLength(h), 0x0102030405060708ULL);
  EXPECT_TRUE(StartsLikeHeader(h.data(), 3));
  const std::uint8_t other[] = {'V', 'E', 'S', 'X'};
  EXPECT_FALSE(StartsLikeHeader(other, 4));
}

TEST(Envelope, TrailerFieldsSitAtTheirDocumentedOffsets) {
  TrailerFields f;
  f.signature.fill(0xaa);
  f.key_id.fill(0xbb);
  f.key_type = 6;
  f.archive_length = 300;
  const Trailer t = EncodeTrailer(f);
  EXPECT_EQ(t[0], 0xaa);
  EXPECT_EQ(t[63], 0xaa);
  EXPECT_EQ(t[64], 0xbb);
  EXPECT_EQ(t[95], 0xbb);
  EXPECT_EQ(Hex(t.data() + 96, 4), "00000006");
  EXPECT_EQ(Hex(t.data() + 100, 4), "00000001");
  EXPECT_EQ(Hex(t.data() + 104, 8), "000000000000012c");
  EXPECT_EQ(std::string(t.begin() + 112, t.end()), "VESKDBUD-SIGNED\n");

  TrailerFields back;
  ASSERT_TRUE(DecodeTrailer(t, &back));
  EXPECT_EQ(back.signature, f.signature);
  EXPECT_EQ(back.key_id, f.key_id);
  EXPECT_EQ(back.key_type, 6u);
  EXPECT_EQ(back.version, 1u);
  EXPECT_EQ(back.archive_length, 300u);

  Trailer broken = t;
  broken[127] = '\r';
  EXPECT_FALSE(DecodeTrailer(broken, &back));
}

TEST(Envelope, SignedMessageIsTheDigestThenEverythingAfterTheSignature) {
  Digest d;
  for (size_t i = 0; i < d.size(); ++i)
    d[i] = static_cast<std::uint8_t>(i);
  TrailerFields f;
  f.signature.fill(0x11);
  f.key_id.fill(0x22);
  const Trailer t = EncodeTrailer(f);
  const SignedMessage m = MakeSignedMessage(d, t);
  ASSERT_EQ(m.size(), 128u);
  EXPECT_TRUE(std::equal(d.begin(), d.end(), m.begin()));
  EXPECT_TRUE(std::equal(t.begin() + 64, t.end(), m.begin() + 64));
  f.signature.fill(0x33);  // the signature is not part of what it signs
  EXPECT_EQ(MakeSignedMessage(d, EncodeTrailer(f)), m);
}

TEST(Envelope, KeyIdIsTheSha256OfTheRawPublicKey) {
  // RFC 8032, section 7.1, test 1.
  const std::uint8_t secret[32] = {0x9d, 0x61, 0xb1, 0x9d, 0xef, 0xfd, 0x5a, 0x60, 0xba, 0x84, 0x4a,
                                   0xf4, 0x92, 0xec, 0x2c, 0xc4, 0x44, 0x49, 0xc5, 0x69, 0x7b, 0x32,
                                   0x69, 0x19, 0x70, 0x3b, 0xac, 0x03, 0x1c, 0xae, 0x7f, 0x60};
  vesk::EvpPkeyPtr key(
      EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, secret, sizeof secret));
  ASSERT_TRUE(key);
  KeyId id;
  ASSERT_TRUE(ComputeKeyId(key.get(), &id));
  // sha256(d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a)
  EXPECT_EQ(Hex(id.data(), id.size()),
            "21fe31dfa154a261626bf854046fd2271b7bed4b6abe45aa58877ef47f9721b9");

  vesk::EvpPkeyPtr rsa(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024}));
  ASSERT_TRUE(rsa);
  EXPECT_FALSE(ComputeKeyId(rsa.get(), &id));
}
