#include "KelMsgByteTally.h"

#include <openssl/evp.h>

#include <array>
#include <memory>
#include <new>

#include "KelMsgCheck.h"

namespace {

// Releases a digest context copied to read the digest so far.
struct ContextFree {
  void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};

}  // namespace

KelMsgByteTally::KelMsgByteTally() : m_context(EVP_MD_CTX_new()) {
  if (m_context == nullptr)
    throw std::bad_alloc();
  KELMSG_ASSERT(EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr) == 1);
}

KelMsgByteTally::~KelMsgByteTally() {
  EVP_MD_CTX_free(m_context);
}

void KelMsgByteTally::Add(const void* data, int bytes) {
  KELMSG_ASSERT(EVP_DigestUpdate(m_context, data, static_cast<std::size_t>(bytes)) == 1);
  m_receipt.m_bytes += bytes;
}

void KelMsgByteTally::Fail(int failure, const char* reason) {
  const bool explains = m_receipt.m_failure == failure && *m_receipt.m_reason.GetUTF8() == '\0';
  if (Failed() && !explains)
    return;
  m_receipt.m_failure = failure;
  m_receipt.m_reason.BuildFromUTF8(reason);
}

KelMsgTransferReceipt KelMsgByteTally::Receipt() const {
  const std::unique_ptr<EVP_MD_CTX, ContextFree> copy(EVP_MD_CTX_new());
  if (copy == nullptr)
    throw std::bad_alloc();
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  KELMSG_ASSERT(EVP_MD_CTX_copy_ex(copy.get(), m_context) == 1);
  KELMSG_ASSERT(EVP_DigestFinal_ex(copy.get(), digest.data(), &length) == 1);

  static constexpr char kHex[] = "0123456789abcdef";
  std::array<char, 2 * EVP_MAX_MD_SIZE> hex{};
  for (unsigned int i = 0; i < length; ++i) {
    hex[2 * i] = kHex[digest[i] >> 4];
    hex[2 * i + 1] = kHex[digest[i] & 0xf];
  }
  KelMsgTransferReceipt receipt = m_receipt;
  receipt.m_digest.BuildFromUTF8(hex.data(), static_cast<int>(2 * length));
  return receipt;
}
