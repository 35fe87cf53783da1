// A pool the miner can mine on: where it is, who logs in, and how the
// connection is secured.
#pragma once

#include <cstdint>
#include <string>

struct PoolEndpoint {
  std::string host;
  uint16_t port = 0;
  std::string user;
  std::string password;
  bool tls = false;
  // TLS: a pinned SHA-256 certificate fingerprint (replaces the CA check),
  // and a file of trusted roots (empty: the system's store).
  std::string pinnedSha256;
  std::string caFile;

  // How the operator sees the pool: scheme, host and port, no password.
  std::string Name() const;
};

// Reads "stratum+tcp://[user[:password]@]host[:port]", "stratum+ssl://..." or
// "stratum+tls://..." (both TLS), or a bare host name. A part the text leaves
// out keeps what `pool` holds already (the run's wallet, password and port).
// False with `error` for another scheme, an empty host or a bad port.
bool ParsePoolUrl(const std::string &text, PoolEndpoint &pool, std::string &error);

// True when the text names a scheme ("...://").
bool LooksLikePoolUrl(const std::string &text);
