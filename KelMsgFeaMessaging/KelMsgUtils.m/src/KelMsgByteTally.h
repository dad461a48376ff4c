// KelMsgByteTally: one side's account of the bytes of one transfer while it
// runs: their count, their SHA-256 (OpenSSL's EVP interface) and the first
// failure, which later ones only follow from.
//
// Ownership: owns its digest context.  Threading: one thread at a time.
#ifndef KELMSGFEAMESSAGING_KELMSGBYTETALLY_H_
#define KELMSGFEAMESSAGING_KELMSGBYTETALLY_H_

#include <openssl/types.h>

#include <cstdint>

#include <KelMsgFeaMessaging/KelMsgTransferReceipt.h>

class KelMsgByteTally {
 public:
  KelMsgByteTally();
  ~KelMsgByteTally();
  KelMsgByteTally(const KelMsgByteTally&) = delete;
  KelMsgByteTally& operator=(const KelMsgByteTally&) = delete;

  void Add(const void* data, int bytes);
  // Keeps the first failure.  A failure without a reason (a short write)
  // takes the reason of the next failure of the same kind, which says why.
  void Fail(int failure, const char* reason);
  bool Failed() const { return m_receipt.m_failure != KelMsgTransferReceipt::FAILURE_NONE; }
  std::int64_t Bytes() const { return m_receipt.m_bytes; }
  // The account so far, its digest over every byte added.
  KelMsgTransferReceipt Receipt() const;

 private:
  EVP_MD_CTX* m_context;
  KelMsgTransferReceipt m_receipt;
};

#endif  // KELMSGFEAMESSAGING_KELMSGBYTETALLY_H_
