// The catalogue of flash images under ./bitstreams/ and the mapped files it
// holds.
#include <fstream>

#include "flash/flash_catalogue.h"
#include "tests/flash/sim_board.h"

namespace {

void WriteText(const std::filesystem::path &path, const std::string &text) { std::ofstream(path) << text; }

std::string Text(const MappedFile &file) {
  return std::string(reinterpret_cast<const char *>(file.Data()), file.Size());
}

class FlashCatalogueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeBitstreamTree(root_);
    previous_ = std::filesystem::current_path();
    std::filesystem::current_path(root_);
  }
  void TearDown() override { std::filesystem::current_path(previous_); }
  std::filesystem::path Folder(const std::string &name) { return root_ / "bitstreams" / ("CKB-" + name); }

  miner_testing::ScratchDir scratch_;
  const std::filesystem::path root_ = scratch_.Path();
  std::filesystem::path previous_;
};

TEST_F(FlashCatalogueTest, NamesBecomeSlotsAndOthersAreIgnored) {
  WriteText(Folder("RK35") / "static.bin", "static image");
  WriteText(Folder("RK35") / "0A.bin", "x");
  WriteText(Folder("RK35") / "a1", "x");
  WriteText(Folder("RK35") / "A1B", "three");
  WriteText(Folder("RK35") / "G", "one");
  WriteText(Folder("RK35") / "H", "x");
  WriteText(Folder("RK35") / "12", "two");
  std::filesystem::create_directories(Folder("RK35") / "7");
  WriteText(Folder("O215") / "static.bin", "wide image");

  FlashCatalogue catalogue;
  LoadFlashCatalogue(catalogue);
  ASSERT_EQ(catalogue.staticImages.size(), 2u);
  EXPECT_EQ(Text(catalogue.staticImages.at(7).file), "static image");
  EXPECT_TRUE(catalogue.staticImages.at(7).slots.empty());
  EXPECT_EQ(Text(catalogue.staticImages.at(3).file), "wide image");  // found through the model's alias

  const auto &images = catalogue.flashImages.at(7);
  ASSERT_EQ(images.size(), 3u);
  EXPECT_EQ(images[0].slots, (std::vector<uint8_t>{16}));
  EXPECT_EQ(images[1].slots, (std::vector<uint8_t>{1, 2}));
  EXPECT_EQ(images[2].slots, (std::vector<uint8_t>{10, 1, 11}));
  EXPECT_EQ(Text(images[2].file), "three");
}

TEST_F(FlashCatalogueTest, MissingModelDirectoryThrows) {
  std::filesystem::remove(Folder("CV13"));
  FlashCatalogue catalogue;
  EXPECT_THROW(LoadFlashCatalogue(catalogue), std::filesystem::filesystem_error);
}

}  // namespace
