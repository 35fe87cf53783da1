#include "net/tls_link.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <mutex>

namespace {

constexpr size_t kChunk = 16384;

std::string HexOf(const unsigned char *bytes, size_t length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < length; i++) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

// The oldest error on this thread's OpenSSL queue, or `fallback`.
std::string OpenSslError(const char *fallback) {
  unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return fallback;
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

bool IsAddress(const std::string &host) {
  unsigned char buffer[16];
  return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

}  // namespace

struct TlsLink::State {
  mutable std::mutex lock;
  SSL_CTX *context = nullptr;
  SSL *ssl = nullptr;
  BIO *incoming = nullptr;  // owned by ssl
  BIO *outgoing = nullptr;  // owned by ssl
  WriteCiphertext write;
  std::string pin;
  std::string waiting;  // plaintext sent before the handshake finished
  std::string error;
  bool established = false;

  ~State() {
    SSL_free(ssl);
    SSL_CTX_free(context);
  }

  bool Fail(std::string why) {
    if (error.empty()) error = std::move(why);
    return false;
  }

  // Moves every sealed byte to the stream.
  bool Flush() {
    char buffer[kChunk];
    while (BIO_ctrl_pending(outgoing) > 0) {
      int n = BIO_read(outgoing, buffer, sizeof buffer);
      if (n <= 0) break;
      if (!write(reinterpret_cast<const uint8_t *>(buffer), static_cast<size_t>(n))) {
        return Fail("the connection would not take TLS data");
      }
    }
    return true;
  }

  bool CheckPin() {
    X509 *certificate = SSL_get1_peer_certificate(ssl);
    if (certificate == nullptr) return Fail("the pool sent no certificate");
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    bool digested = X509_digest(certificate, EVP_sha256(), digest, &length) == 1;
    X509_free(certificate);
    if (!digested) return Fail(OpenSslError("cannot take the certificate's fingerprint"));
    std::string fingerprint = HexOf(digest, length);
    if (fingerprint != pin) {
      return Fail("certificate fingerprint " + fingerprint + " does not match the pinned " + pin);
    }
    return true;
  }

  bool Write(const uint8_t *bytes, size_t length) {
    while (length > 0) {
      int chunk = static_cast<int>(length < kChunk ? length : kChunk);
      int n = SSL_write(ssl, bytes, chunk);
      if (n <= 0) return Fail(OpenSslError("TLS write failed"));
      bytes += n;
      length -= static_cast<size_t>(n);
    }
    return Flush();
  }

  // Moves the handshake on with what has arrived; on completion the waiting
  // plaintext goes out.
  bool Handshake() {
    int result = SSL_do_handshake(ssl);
    if (result != 1) {
      int reason = SSL_get_error(ssl, result);
      if (reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE) return Flush();
      long verify = SSL_get_verify_result(ssl);
      if (verify != X509_V_OK) {
        ERR_clear_error();
        return Fail(std::string("certificate verify failed: ") + X509_verify_cert_error_string(verify));
      }
      return Fail(OpenSslError("TLS handshake failed"));
    }
    if (!pin.empty() && !CheckPin()) return false;
    established = true;
    if (!Flush()) return false;
    std::string pending;
    pending.swap(waiting);
    return Write(reinterpret_cast<const uint8_t *>(pending.data()), pending.size());
  }
};

TlsLink::TlsLink(std::unique_ptr<State> state) : state_(std::move(state)) {}
TlsLink::~TlsLink() = default;

std::unique_ptr<TlsLink> TlsLink::Create(const TlsSettings &settings, WriteCiphertext write, std::string &error) {
  auto state = std::make_unique<State>();
  state->write = std::move(write);
  if (!settings.pinnedSha256.empty() && !NormalisePin(settings.pinnedSha256, state->pin)) {
    error = "the pinned fingerprint is not 64 hex digits";
    return nullptr;
  }
  ERR_clear_error();
  state->context = SSL_CTX_new(TLS_client_method());
  if (state->context == nullptr) {
    error = OpenSslError("cannot set up TLS");
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(state->context, TLS1_2_VERSION);
  if (state->pin.empty()) {
    SSL_CTX_set_verify(state->context, SSL_VERIFY_PEER, nullptr);
    bool loaded = settings.caFile.empty()
                      ? SSL_CTX_set_default_verify_paths(state->context) == 1
                      : SSL_CTX_load_verify_locations(state->context, settings.caFile.c_str(), nullptr) == 1;
    if (!loaded) {
      error = "cannot load trusted certificates" + (settings.caFile.empty() ? "" : " from " + settings.caFile) + ": " +
              OpenSslError("unknown error");
      return nullptr;
    }
  } else {
    // The fingerprint decides once the handshake has shown the certificate.
    SSL_CTX_set_verify(state->context, SSL_VERIFY_NONE, nullptr);
  }

  state->ssl = SSL_new(state->context);
  state->incoming = BIO_new(BIO_s_mem());
  state->outgoing = BIO_new(BIO_s_mem());
  if (state->ssl == nullptr || state->incoming == nullptr || state->outgoing == nullptr) {
    BIO_free(state->incoming);
    BIO_free(state->outgoing);
    error = OpenSslError("cannot set up TLS");
    return nullptr;
  }
  SSL_set_bio(state->ssl, state->incoming, state->outgoing);
  SSL_set_connect_state(state->ssl);
  const std::string &host = settings.serverName;
  bool address = IsAddress(host);
  if (!host.empty() && !address) SSL_set_tlsext_host_name(state->ssl, host.c_str());
  if (state->pin.empty() && !host.empty()) {
    X509_VERIFY_PARAM *check = SSL_get0_param(state->ssl);
    bool set = address ? X509_VERIFY_PARAM_set1_ip_asc(check, host.c_str()) == 1
                       : X509_VERIFY_PARAM_set1_host(check, host.c_str(), 0) == 1;
    if (!set) {
      error = "cannot check the certificate against " + host;
      return nullptr;
    }
  }
  return std::unique_ptr<TlsLink>(new TlsLink(std::move(state)));
}

bool TlsLink::Start() {
  std::lock_guard<std::mutex> guard(state_->lock);
  ERR_clear_error();
  return state_->error.empty() && state_->Handshake();
}

bool TlsLink::Receive(const uint8_t *bytes, size_t length, std::string &plaintext) {
  State &state = *state_;
  std::lock_guard<std::mutex> guard(state.lock);
  if (!state.error.empty()) return false;
  ERR_clear_error();
  if (length > 0 && BIO_write(state.incoming, bytes, static_cast<int>(length)) != static_cast<int>(length)) {
    return state.Fail("TLS buffer full");
  }
  if (!state.established && !state.Handshake()) return false;
  if (!state.established) return true;
  char buffer[kChunk];
  for (;;) {
    int n = SSL_read(state.ssl, buffer, sizeof buffer);
    if (n > 0) {
      plaintext.append(buffer, static_cast<size_t>(n));
      continue;
    }
    int reason = SSL_get_error(state.ssl, n);
    if (reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE) break;
    if (reason == SSL_ERROR_ZERO_RETURN) return state.Fail("the pool ended the TLS session");
    return state.Fail(OpenSslError("TLS read failed"));
  }
  return state.Flush();
}

bool TlsLink::Send(const uint8_t *bytes, size_t length) {
  State &state = *state_;
  std::lock_guard<std::mutex> guard(state.lock);
  if (!state.error.empty()) return false;
  ERR_clear_error();
  if (!state.established) {
    state.waiting.append(reinterpret_cast<const char *>(bytes), length);
    return true;
  }
  return state.Write(bytes, length);
}

bool TlsLink::Established() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->established && state_->error.empty();
}

std::string TlsLink::Error() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->error;
}

std::string TlsLink::Fingerprint(const uint8_t *der, size_t length) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(der, length, digest, &size, EVP_sha256(), nullptr) != 1) return "";
  return HexOf(digest, size);
}

bool TlsLink::NormalisePin(const std::string &text, std::string &pin) {
  std::string digits;
  for (char c : text) {
    if (c == ':') continue;
    if (!isxdigit(static_cast<unsigned char>(c))) return false;
    digits += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  if (digits.size() != 64) return false;
  pin = digits;
  return true;
}
