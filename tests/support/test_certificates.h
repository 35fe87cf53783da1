// Certificates made at test time with the openssl tool: a test CA and a pool
// certificate it signed for "pool.test" and 127.0.0.1.
#pragma once

#include <string>

namespace testing_support {

struct TestCertificates {
  std::string directory;
  std::string caFile;       // the CA's certificate (PEM)
  std::string certFile;     // the pool's certificate (PEM)
  std::string keyFile;      // the pool's key (PEM)
  std::string fingerprint;  // SHA-256 of the pool certificate's DER, hex
};

// Made once per test process; fails the calling test when openssl is missing.
const TestCertificates &MakeTestCertificates();

}  // namespace testing_support
