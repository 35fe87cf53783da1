#include "support/test_certificates.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace testing_support {

namespace {

bool Run(const std::string &command) { return system(("(" + command + ") >/dev/null 2>&1").c_str()) == 0; }

// Made in place, once, and never copied; the files go with the test process.
struct MadeCertificates : TestCertificates {
  MadeCertificates() {
    directory = (std::filesystem::temp_directory_path() / ("ombry-certs-" + std::to_string(getpid()))).string();
    std::filesystem::create_directories(directory);
    const std::string &d = directory;
    caFile = d + "/ca.pem";
    certFile = d + "/pool.pem";
    keyFile = d + "/pool.key";
    std::ofstream(d + "/ext.cnf") << "subjectAltName=DNS:pool.test,IP:127.0.0.1\n";
    const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    bool ok = Run("openssl req -x509" + key + " -keyout " + d + "/ca.key -out " + caFile +
                  " -days 2 -subj /CN=ombry-test-ca") &&
              Run("openssl req" + key + " -keyout " + keyFile + " -out " + d + "/pool.csr -subj /CN=pool.test") &&
              Run("openssl x509 -req -in " + d + "/pool.csr -CA " + caFile + " -CAkey " + d +
                  "/ca.key -CAcreateserial -days 2 -extfile " + d + "/ext.cnf -out " + certFile) &&
              Run("openssl x509 -in " + certFile + " -outform DER | sha256sum | cut -c1-64 > " + d + "/sha256");
    if (ok) std::ifstream(d + "/sha256") >> fingerprint;
  }
  ~MadeCertificates() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }
};

}  // namespace

const TestCertificates &MakeTestCertificates() {
  static const MadeCertificates made;
  EXPECT_EQ(made.fingerprint.size(), 64u) << "openssl could not make the test certificates";
  return made;
}

}  // namespace testing_support
