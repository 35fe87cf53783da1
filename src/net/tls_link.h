// TLS over a stream whose bytes someone else moves. The socket set reads and
// sends as it does for plain TCP; this link only turns the ciphertext it reads
// into plaintext and the plaintext to send into ciphertext, in memory, so TLS
// needs no thread of its own and never blocks the receive loop.
//
// Thread use: Receive on the socket's receive thread, Send from any thread.
// Ciphertext leaves through the write callback under the link's own lock, so
// records reach the stream in the order they were sealed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct TlsSettings {
  // The pool's host name: sent as SNI and, without a pin, checked against the
  // certificate.
  std::string serverName;
  // A SHA-256 fingerprint of the pool's certificate (hex, colons allowed).
  // When set it replaces the CA check: exactly this certificate is accepted.
  std::string pinnedSha256;
  // A PEM file of trusted roots; empty means the system's store.
  std::string caFile;
};

class TlsLink {
 public:
  // Hands ciphertext to the stream; false when it could not be queued.
  using WriteCiphertext = std::function<bool(const uint8_t *bytes, size_t length)>;

  // Null with `error` set when the settings can't be used (a bad pin, an
  // unreadable CA file).
  static std::unique_ptr<TlsLink> Create(const TlsSettings &settings, WriteCiphertext write, std::string &error);
  ~TlsLink();
  TlsLink(const TlsLink &) = delete;
  TlsLink &operator=(const TlsLink &) = delete;

  // Sends the client's first handshake flight.
  bool Start();
  // Ciphertext read from the stream; the plaintext it opens is appended to
  // `plaintext`. False once the link has failed (see Error()).
  bool Receive(const uint8_t *bytes, size_t length, std::string &plaintext);
  // Plaintext to send. Before the handshake is done it waits in the link and
  // goes out when the handshake completes.
  bool Send(const uint8_t *bytes, size_t length);

  bool Established() const;
  // Why the link failed, e.g. "certificate verify failed: self-signed
  // certificate"; empty while it has not.
  std::string Error() const;

  // The SHA-256 fingerprint of a DER certificate as 64 lower-case hex digits.
  static std::string Fingerprint(const uint8_t *der, size_t length);
  // Normalises a fingerprint as given by an operator; false when it isn't 32
  // bytes of hex.
  static bool NormalisePin(const std::string &text, std::string &pin);

 private:
  struct State;
  explicit TlsLink(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};
