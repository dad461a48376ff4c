#include "CertificateAuthority.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace {

constexpr long kAuthorityDays = 3650;
constexpr long kServerDays = 825;
constexpr int kSerialBits = 63;
constexpr long kSecondsPerDay = 24 * 60 * 60;
// Certificates count from an hour back, for clocks that differ a little.
constexpr long kClockSlack = -60 * 60;

[[noreturn]] void Throw(const std::string& doing) {
  char reason[256] = "unknown error";
  if (const unsigned long error = ERR_get_error(); error != 0)
    ERR_error_string_n(error, reason, sizeof reason);
  ERR_clear_error();
  throw std::runtime_error(doing + ": " + reason);
}

void Check(bool ok, const std::string& doing) {
  if (!ok)
    Throw(doing);
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Keys are readable by their owner only, from the moment they exist.
File OpenForWriting(const std::string& path, bool secret) {
  const int descriptor =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, secret ? 0600 : 0644);
  if (descriptor < 0)
    throw std::runtime_error("cannot write " + path);
  File file(fdopen(descriptor, "w"));
  if (!file) {
    ::close(descriptor);
    throw std::runtime_error("cannot write " + path);
  }
  return file;
}

File OpenForReading(const std::string& path) {
  File file(std::fopen(path.c_str(), "r"));
  if (!file)
    throw std::runtime_error("cannot read " + path);
  return file;
}

evp_pkey_st* NewKey() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  Check(key != nullptr, "cannot make a key");
  return key;
}

void WriteKey(EVP_PKEY* key, const std::string& path) {
  const File file = OpenForWriting(path, true);
  Check(PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
        "cannot write " + path);
}

void WriteCertificate(X509* certificate, const std::string& path) {
  const File file = OpenForWriting(path, false);
  Check(PEM_write_X509(file.get(), certificate) == 1, "cannot write " + path);
}

void AddExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  Check(extension != nullptr, "cannot make the extension " + value);
  const int added = X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
  Check(added == 1, "cannot add the extension " + value);
}

// A certificate for `key` named `commonName`, valid for `days`, not yet
// signed; its issuer is itself until told otherwise.
X509* NewCertificate(EVP_PKEY* key, const std::string& commonName, long days) {
  X509* certificate = X509_new();
  Check(certificate != nullptr, "cannot make a certificate");
  BIGNUM* serial = BN_new();
  const bool ok =
      serial != nullptr && BN_rand(serial, kSerialBits, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
      BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(certificate)) != nullptr &&
      X509_set_version(certificate, 2) == 1 &&
      X509_gmtime_adj(X509_getm_notBefore(certificate), kClockSlack) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(certificate), days * kSecondsPerDay) != nullptr &&
      X509_set_pubkey(certificate, key) == 1 &&
      X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                                 0) == 1 &&
      X509_set_issuer_name(certificate, X509_get_subject_name(certificate)) == 1;
  BN_free(serial);
  if (!ok) {
    X509_free(certificate);
    Throw("cannot make a certificate for " + commonName);
  }
  return certificate;
}

std::string SubjectAlternativeNames(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    unsigned char address[16];
    const bool ip = inet_pton(AF_INET, name.c_str(), address) == 1 ||
                    inet_pton(AF_INET6, name.c_str(), address) == 1;
    list += (list.empty() ? "" : ",") + std::string(ip ? "IP:" : "DNS:") + name;
  }
  return list;
}

}  // namespace

void CertificateAuthority::KeyDeleter::operator()(evp_pkey_st* key) const {
  EVP_PKEY_free(key);
}

void CertificateAuthority::CertificateDeleter::operator()(x509_st* certificate) const {
  X509_free(certificate);
}

CertificateAuthority::CertificateAuthority(const std::string& name)
    : m_key(NewKey()), m_certificate(NewCertificate(m_key.get(), name, kAuthorityDays)) {
  X509* self = m_certificate.get();
  AddExtension(self, self, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(self, self, NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(self, self, NID_subject_key_identifier, "hash");
  Check(X509_sign(self, m_key.get(), EVP_sha256()) > 0, "cannot sign the authority");
}

CertificateAuthority::CertificateAuthority(const std::string& certificateFile,
                                           const std::string& keyFile)
    : m_key(PEM_read_PrivateKey(OpenForReading(keyFile).get(), nullptr, nullptr, nullptr)),
      m_certificate(
          PEM_read_X509(OpenForReading(certificateFile).get(), nullptr, nullptr, nullptr)) {
  Check(m_key && m_certificate, "cannot load the authority from " + certificateFile);
  Check(X509_check_private_key(m_certificate.get(), m_key.get()) == 1,
        keyFile + " is not the key of " + certificateFile);
}

CertificateAuthority::~CertificateAuthority() = default;
CertificateAuthority::CertificateAuthority(CertificateAuthority&&) noexcept = default;
CertificateAuthority& CertificateAuthority::operator=(CertificateAuthority&&) noexcept = default;

void CertificateAuthority::Save(const std::string& certificateFile,
                                const std::string& keyFile) const {
  WriteKey(m_key.get(), keyFile);
  WriteCertificate(m_certificate.get(), certificateFile);
}

void CertificateAuthority::IssueServerCertificate(const std::vector<std::string>& names,
                                                  const std::string& certificateFile,
                                                  const std::string& keyFile) const {
  if (names.empty())
    throw std::runtime_error("a server certificate needs at least one name");
  const std::unique_ptr<evp_pkey_st, KeyDeleter> key(NewKey());
  const std::unique_ptr<x509_st, CertificateDeleter> certificate(
      NewCertificate(key.get(), names.front(), kServerDays));
  X509* server = certificate.get();
  X509* issuer = m_certificate.get();
  Check(X509_set_issuer_name(server, X509_get_subject_name(issuer)) == 1, "cannot name the issuer");
  AddExtension(server, issuer, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(server, issuer, NID_key_usage, "critical,digitalSignature");
  AddExtension(server, issuer, NID_ext_key_usage, "serverAuth");
  AddExtension(server, issuer, NID_subject_alt_name, SubjectAlternativeNames(names));
  Check(X509_sign(server, m_key.get(), EVP_sha256()) > 0, "cannot sign the certificate");
  WriteKey(key.get(), keyFile);
  WriteCertificate(server, certificateFile);
}
