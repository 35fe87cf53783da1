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

// The files go with the test process.
struct MadeCertificates : TestCertificates {
  ~MadeCertificates() {
    std::error_code ignored;
    if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
  }
};

void Make(TestCertificates &made) {
  auto directory = std::filesystem::temp_directory_path() / ("ombry-certs-" + std::to_string(getpid()));
  std::filesystem::create_directories(directory);
  made.directory = directory.string();
  made.caFile = made.directory + "/ca.pem";
  made.certFile = made.directory + "/pool.pem";
  made.keyFile = made.directory + "/pool.key";
  std::string d = made.directory;
  std::ofstream(d + "/ext.cnf") << "subjectAltName=DNS:pool.test,IP:127.0.0.1\n";
  const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  bool ok = Run("openssl req -x509" + key + " -keyout " + d + "/ca.key -out " + made.caFile +
                " -days 2 -subj /CN=ombry-test-ca") &&
            Run("openssl req" + key + " -keyout " + made.keyFile + " -out " + d + "/pool.csr -subj /CN=pool.test") &&
            Run("openssl x509 -req -in " + d + "/pool.csr -CA " + made.caFile + " -CAkey " + d +
                "/ca.key -CAcreateserial -days 2 -extfile " + d + "/ext.cnf -out " + made.certFile) &&
            Run("openssl x509 -in " + made.certFile + " -outform DER | sha256sum | cut -c1-64 > " + d + "/sha256");
  if (ok) std::ifstream(d + "/sha256") >> made.fingerprint;
}

}  // namespace

const TestCertificates &MakeTestCertificates() {
  // Made in place: the record that removes the files is never copied.
  static MadeCertificates made;
  static const bool once = (Make(made), true);
  (void)once;
  EXPECT_EQ(made.fingerprint.size(), 64u) << "openssl could not make the test certificates";
  return made;
}

}  // namespace testing_support
