#include "stratum/pool_endpoint.h"

#include <cstdlib>

std::string PoolEndpoint::Name() const {
  return std::string(tls ? "stratum+ssl://" : "stratum+tcp://") + host + ":" + std::to_string(port);
}

bool LooksLikePoolUrl(const std::string &text) { return text.find("://") != std::string::npos; }

namespace {

// The URL as messages show it: a password in it as ***.
std::string Shown(const std::string &url) {
  size_t start = url.find("://");
  start = start == std::string::npos ? 0 : start + 3;
  size_t at = url.rfind('@');
  if (at == std::string::npos || at < start) return url;
  size_t colon = url.find(':', start);
  if (colon == std::string::npos || colon > at) return url;
  return url.substr(0, colon + 1) + "***" + url.substr(at);
}

}  // namespace

bool ParsePoolUrl(const std::string &text, PoolEndpoint &pool, std::string &error) {
  std::string rest = text;
  if (size_t scheme = rest.find("://"); scheme != std::string::npos) {
    std::string name = rest.substr(0, scheme);
    if (name == "stratum+tcp") {
      pool.tls = false;
    } else if (name == "stratum+ssl" || name == "stratum+tls") {
      pool.tls = true;
    } else {
      error = "unknown scheme " + name + ":// (stratum+tcp, stratum+ssl or stratum+tls)";
      return false;
    }
    rest = rest.substr(scheme + 3);
  }
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  // The login may hold ':' itself; the host part starts after the last '@'.
  if (size_t at = rest.rfind('@'); at != std::string::npos) {
    std::string login = rest.substr(0, at);
    rest = rest.substr(at + 1);
    size_t colon = login.find(':');
    pool.user = login.substr(0, colon);
    if (colon != std::string::npos) pool.password = login.substr(colon + 1);
  }
  if (size_t colon = rest.rfind(':'); colon != std::string::npos) {
    std::string port = rest.substr(colon + 1);
    char *end = nullptr;
    long value = strtol(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || value < 1 || value > 65535) {
      error = "bad port '" + port + "' in " + Shown(text);
      return false;
    }
    pool.port = static_cast<uint16_t>(value);
    rest.resize(colon);
  }
  if (rest.empty() || rest.find_first_of("/@ ") != std::string::npos) {
    error = "no host in " + Shown(text);
    return false;
  }
  pool.host = rest;
  if (pool.port == 0) {
    error = "no port in " + Shown(text);
    return false;
  }
  return true;
}
