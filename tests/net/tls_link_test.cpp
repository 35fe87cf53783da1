// The client's TLS link against a server held in memory: the bytes each side
// seals are handed to the other, as a socket would.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <string>

#include "net/tls_link.h"
#include "support/test_certificates.h"

using testing_support::MakeTestCertificates;

namespace {

class MemoryServer {
 public:
  MemoryServer() {
    const auto &certs = MakeTestCertificates();
    context_ = SSL_CTX_new(TLS_server_method());
    EXPECT_EQ(SSL_CTX_use_certificate_chain_file(context_, certs.certFile.c_str()), 1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey_file(context_, certs.keyFile.c_str(), SSL_FILETYPE_PEM), 1);
    ssl_ = SSL_new(context_);
    in_ = BIO_new(BIO_s_mem());
    out_ = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl_, in_, out_);
    SSL_set_accept_state(ssl_);
  }
  ~MemoryServer() {
    SSL_free(ssl_);
    SSL_CTX_free(context_);
  }

  // Takes the client's ciphertext; returns what the server sends back, and
  // collects the plaintext it opened.
  std::string Exchange(const std::string &fromClient) {
    BIO_write(in_, fromClient.data(), static_cast<int>(fromClient.size()));
    if (!SSL_is_init_finished(ssl_)) SSL_do_handshake(ssl_);
    char buffer[4096];
    int n;
    while (SSL_is_init_finished(ssl_) && (n = SSL_read(ssl_, buffer, sizeof buffer)) > 0) received.append(buffer, n);
    ERR_clear_error();
    return Drain();
  }
  std::string Seal(const std::string &plaintext) {
    SSL_write(ssl_, plaintext.data(), static_cast<int>(plaintext.size()));
    return Drain();
  }
  std::string received;

 private:
  std::string Drain() {
    std::string sealed;
    char buffer[4096];
    int n;
    while ((n = BIO_read(out_, buffer, sizeof buffer)) > 0) sealed.append(buffer, n);
    return sealed;
  }
  SSL_CTX *context_;
  SSL *ssl_;
  BIO *in_;
  BIO *out_;
};

struct Session {
  std::string wire;  // client -> server bytes not yet delivered
  MemoryServer server;
  std::unique_ptr<TlsLink> link;
  std::string plaintext;

  explicit Session(TlsSettings settings) {
    std::string error;
    link = TlsLink::Create(
        settings,
        [this](const uint8_t *bytes, size_t length) {
          wire.append(reinterpret_cast<const char *>(bytes), length);
          return true;
        },
        error);
    EXPECT_TRUE(link) << error;
  }
  // Runs the conversation until neither side has anything to say.
  bool Pump() {
    for (int round = 0; round < 10; round++) {
      std::string toServer;
      toServer.swap(wire);
      std::string back = server.Exchange(toServer);
      if (toServer.empty() && back.empty()) return true;
      if (!link->Receive(reinterpret_cast<const uint8_t *>(back.data()), back.size(), plaintext)) return false;
    }
    return true;
  }
};

TlsSettings Trusting(std::string name) {
  TlsSettings settings;
  settings.serverName = std::move(name);
  settings.caFile = MakeTestCertificates().caFile;
  return settings;
}

TEST(TlsLinkTest, CarriesLinesBothWaysOnceTheCertificateChecksOut) {
  for (const char *name : {"pool.test", "127.0.0.1"}) {
    Session session(Trusting(name));
    ASSERT_TRUE(session.link->Start());
    // Sent before the handshake is done: held, then delivered in order.
    const std::string subscribe = "{\"id\":1,\"method\":\"mining.subscribe\"}\n";
    ASSERT_TRUE(session.link->Send(reinterpret_cast<const uint8_t *>(subscribe.data()), subscribe.size()));
    ASSERT_TRUE(session.Pump()) << session.link->Error();
    EXPECT_TRUE(session.link->Established()) << name;
    EXPECT_EQ(session.server.received, subscribe);

    std::string answer = session.server.Seal("{\"id\":1,\"result\":true}\n");
    ASSERT_TRUE(session.link->Receive(reinterpret_cast<const uint8_t *>(answer.data()), answer.size(),
                                      session.plaintext));
    EXPECT_EQ(session.plaintext, "{\"id\":1,\"result\":true}\n");
  }
}

TEST(TlsLinkTest, RefusesACertificateItCannotTrustAndSaysWhy) {
  struct Case {
    TlsSettings settings;
    const char *why;
  };
  TlsSettings systemStore;  // the test CA is in no system store
  systemStore.serverName = "pool.test";
  TlsSettings wrongPin = Trusting("pool.test");
  wrongPin.pinnedSha256 = std::string(64, 'a');
  const Case cases[] = {
      {Trusting("other.test"), "certificate verify failed"},
      {systemStore, "certificate verify failed"},
      {wrongPin, "does not match the pinned"},
  };
  for (const Case &c : cases) {
    Session session(c.settings);
    ASSERT_TRUE(session.link->Start());
    EXPECT_FALSE(session.Pump());
    EXPECT_FALSE(session.link->Established());
    EXPECT_NE(session.link->Error().find(c.why), std::string::npos) << session.link->Error();
    const std::string line = "x\n";
    EXPECT_FALSE(session.link->Send(reinterpret_cast<const uint8_t *>(line.data()), line.size()));
    EXPECT_EQ(session.server.received, "");
  }
}

TEST(TlsLinkTest, APinnedCertificateNeedsNoCertificateAuthority) {
  TlsSettings settings;
  settings.serverName = "any.name";
  std::string fingerprint = MakeTestCertificates().fingerprint;
  // As an operator may copy it: upper case with colons.
  std::string written;
  for (size_t i = 0; i < fingerprint.size(); i += 2) {
    written += (i ? ":" : "") + fingerprint.substr(i, 2);
  }
  for (char &c : written) c = static_cast<char>(toupper(c));
  settings.pinnedSha256 = written;
  Session session(settings);
  ASSERT_TRUE(session.link->Start());
  ASSERT_TRUE(session.Pump()) << session.link->Error();
  EXPECT_TRUE(session.link->Established());

  std::string error;
  settings.pinnedSha256 = "12:34";
  EXPECT_FALSE(TlsLink::Create(settings, [](const uint8_t *, size_t) { return true; }, error));
  EXPECT_NE(error.find("64 hex digits"), std::string::npos);
}

}  // namespace
