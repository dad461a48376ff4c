// CertificateAuthority: a certificate authority of one's own, for brokers
// that speak TLS without a certificate from a public CA (`kelmsg bus --tls`,
// the tests, the benchmarks).  It holds an EC P-256 key and a self-signed
// certificate, and issues server certificates naming the host names and
// addresses a broker is reached by.  Files are PEM; key files are written
// readable by their owner only.
//
// The object owns its key and certificate.  One thread at a time.  Failures
// (unreadable or unwritable files, OpenSSL errors) throw std::runtime_error
// with OpenSSL's reason.
//
//   CertificateAuthority ca("kelbus test CA");
//   ca.Save(dir + "/ca.pem", dir + "/ca.key");
//   ca.IssueServerCertificate({"localhost", "127.0.0.1"}, dir + "/server.pem",
//                             dir + "/server.key");
#ifndef KELMSG_LAUNCH_CERTIFICATEAUTHORITY_H_
#define KELMSG_LAUNCH_CERTIFICATEAUTHORITY_H_

#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;
struct x509_st;

class CertificateAuthority {
 public:
  // A new authority whose certificate bears `name`.
  explicit CertificateAuthority(const std::string& name);
  // The authority saved before in these files.
  CertificateAuthority(const std::string& certificateFile, const std::string& keyFile);
  ~CertificateAuthority();
  CertificateAuthority(CertificateAuthority&&) noexcept;
  CertificateAuthority& operator=(CertificateAuthority&&) noexcept;

  // Writes the certificate (what clients trust) and the key.
  void Save(const std::string& certificateFile, const std::string& keyFile) const;
  // Writes a new key and a certificate, signed by this authority, for a
  // server reached by `names`: host names and IPv4 or IPv6 addresses.
  void IssueServerCertificate(const std::vector<std::string>& names,
                              const std::string& certificateFile, const std::string& keyFile) const;

 private:
  struct KeyDeleter {
    void operator()(evp_pkey_st* key) const;
  };
  struct CertificateDeleter {
    void operator()(x509_st* certificate) const;
  };

  std::unique_ptr<evp_pkey_st, KeyDeleter> m_key;
  std::unique_ptr<x509_st, CertificateDeleter> m_certificate;
};

#endif  // KELMSG_LAUNCH_CERTIFICATEAUTHORITY_H_
