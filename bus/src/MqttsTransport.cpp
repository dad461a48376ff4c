// mqtts://: the MQTT transport over TLS.  Its links see the scheme in their
// address and call SetUpTls; everything else is the MQTT transport's.
#include <mosquitto.h>
#include <openssl/ssl.h>

#include <string>

#include "LastError.h"
#include "TlsSetup.h"
#include "Transport.h"

namespace kelbus {
namespace {

constexpr const char* kSystemCertificates = "/etc/ssl/certs";
constexpr std::string_view kOpenSslPrefix = "OpenSSL Error";
constexpr std::string_view kLibraryPrefix = "Error: ";

// What libmosquitto logged as errors on this thread since the last failure
// was taken; OpenSSL's words reach us only through its log.
thread_local std::string t_failure;

void KeepErrors(mosquitto*, void*, int level, const char* text) {
  if (level != MOSQ_LOG_ERR)
    return;
  std::string_view line(text);
  // "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed"
  if (line.starts_with(kOpenSslPrefix))
    line.remove_prefix(line.rfind(':') + 1);
  // "Error: host name verification failed."
  if (line.starts_with(kLibraryPrefix))
    line.remove_prefix(kLibraryPrefix.size());
  if (line.ends_with('.'))
    line.remove_suffix(1);
  if (!t_failure.empty())
    t_failure += "; ";
  t_failure += line;
}

// A client key with a passphrase is refused rather than asked for on the
// terminal of whichever program uses the bus.
int NoPassphrase(char*, int, int, void*) {
  return 0;
}

}  // namespace

KelBusResult SetUpTls(mosquitto* mosq, const TlsFiles& files) {
  mosquitto_log_callback_set(mosq, &KeepErrors);
  auto name = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
  const char* caPath = files.caFile.empty() ? kSystemCertificates : nullptr;
  int result = mosquitto_tls_set(mosq, name(files.caFile), caPath, name(files.certFile),
                                 name(files.keyFile), &NoPassphrase);
  if (result == MOSQ_ERR_SUCCESS)
    result = mosquitto_tls_opts_set(mosq, 1 /* verify the broker */, nullptr, nullptr);
  if (result != MOSQ_ERR_SUCCESS) {
    return Fail(KELBUS_ERR_TRANSPORT,
                std::string("cannot set up TLS: ") + mosquitto_strerror(result));
  }
  return KELBUS_OK;
}

void KeepTlsBuffers(mosquitto* mosq) {
  if (auto* connection = static_cast<SSL*>(mosquitto_ssl_get(mosq)))
    SSL_clear_mode(connection, SSL_MODE_RELEASE_BUFFERS);
}

std::string TakeTlsFailure() {
  std::string failure =
      "TLS: " + (t_failure.empty() ? mosquitto_strerror(MOSQ_ERR_TLS) : t_failure);
  if (t_failure.find("host name verification failed") != std::string::npos) {
    failure += " (the broker's certificate does not name the host of KELBUS_URL)";
  } else if (t_failure.find("certificate verify failed") != std::string::npos) {
    failure +=
        " (the broker's certificate is not signed by the CA of KELBUS_CA_FILE, or by one "
        "of the system's when it is unset)";
  }
  t_failure.clear();
  return failure;
}

std::unique_ptr<Transport> OpenMqttsTransport(const BusAddress& address, const std::string& label,
                                              const Inbox& inbox, KelBusResult* result) {
  return OpenMqttTransport(address, label, inbox, result);
}

}  // namespace kelbus
