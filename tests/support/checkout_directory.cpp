// The miner reads ./bitstreams/ at start and ends when it is missing; the
// runs of this test binary start in the checkout, which ships the tree.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace {

class CheckoutDirectory : public ::testing::Environment {
  void SetUp() override {
    // Non-fatal: a fatal failure here would turn every test into a skip.
    const char *source = getenv("OMBRY_SOURCE_DIR");
    EXPECT_NE(source, nullptr) << "run the tests through ctest";
    if (source) { EXPECT_EQ(chdir(source), 0); }
  }
};
const auto *const kCheckoutDirectory = ::testing::AddGlobalTestEnvironment(new CheckoutDirectory);

}  // namespace
