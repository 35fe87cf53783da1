// The catalogue of flash images under ./bitstreams/ and the mapped files it
// holds.
#include <fcntl.h>
#include <unistd.h>

#include <fstream>

#include "miner/flash_catalogue.h"
#include "tests/flash/sim_board.h"

namespace {

void WriteText(const std::filesystem::path &path, const std::string &text) { std::ofstream(path) << text; }

std::string Text(const MappedFile &file) {
  return std::string(reinterpret_cast<const char *>(file.Data()), file.Size());
}

// A sparse file: address space for the mapping budget without disk use.
void MakeSparse(const std::filesystem::path &path, uint64_t size) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
  close(fd);
}

class FlashCatalogueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = TempDirectory("catalogue");
    MakeBitstreamTree(root_);
    previous_ = std::filesystem::current_path();
    std::filesystem::current_path(root_);
  }
  void TearDown() override {
    std::filesystem::current_path(previous_);
    std::filesystem::remove_all(root_);
  }
  std::filesystem::path Folder(const std::string &name) { return root_ / "bitstreams" / ("CKB-" + name); }

  std::filesystem::path root_;
  std::filesystem::path previous_;
};

TEST_F(FlashCatalogueTest, NamesBecomeSlotsAndOthersAreIgnored) {
  WriteText(Folder("RK35") / "static.bin", "static image");
  WriteText(Folder("RK35") / "0A.bin", "x");
  WriteText(Folder("RK35") / "a1", "x");
  WriteText(Folder("RK35") / "A1B", "three");
  WriteText(Folder("RK35") / "G", "one");
  WriteText(Folder("RK35") / "12", "two");
  std::filesystem::create_directories(Folder("RK35") / "7");
  WriteText(Folder("O215") / "static.bin", "wide image");

  MiningContext context;
  LoadFlashCatalogue(context);
  ASSERT_EQ(context.staticImages.size(), 2u);
  EXPECT_EQ(Text(context.staticImages.at(7).file), "static image");
  EXPECT_TRUE(context.staticImages.at(7).slots.empty());
  EXPECT_EQ(Text(context.staticImages.at(3).file), "wide image");  // found through the model's alias

  const auto &images = context.flashImages.at(7);
  ASSERT_EQ(images.size(), 3u);
  EXPECT_EQ(images[0].slots, (std::vector<uint8_t>{16}));
  EXPECT_EQ(images[1].slots, (std::vector<uint8_t>{1, 2}));
  EXPECT_EQ(images[2].slots, (std::vector<uint8_t>{10, 1, 11}));
  EXPECT_EQ(Text(images[2].file), "three");
}

TEST_F(FlashCatalogueTest, SharedModelTakesTheFirstIdentityWithAnImage) {
  WriteText(Folder("RK37") / "static.bin", "RK37");
  WriteText(Folder("NV01") / "static.bin", "NV01");
  WriteText(Folder("JC39") / "static.bin", "JC39");
  MiningContext context;
  LoadFlashCatalogue(context);
  EXPECT_EQ(Text(context.staticImages.at(11).file), "JC39");
}

TEST_F(FlashCatalogueTest, ImagesPastTheBudgetAreDroppedAndTheWalkGoesOn) {
  constexpr uint64_t kGiB = 1ull << 30;
  MakeSparse(Folder("RK33") / "1", 3 * kGiB);
  MakeSparse(Folder("RK33") / "2", 2 * kGiB);
  MakeSparse(Folder("RK33") / "3", 1 * kGiB);  // brings the total to exactly 4 GiB
  MakeSparse(Folder("RK33") / "45", 1);
  MiningContext context;
  LoadFlashCatalogue(context);
  const auto &images = context.flashImages.at(6);
  ASSERT_EQ(images.size(), 2u);
  EXPECT_EQ(images[0].slots, (std::vector<uint8_t>{1}));
  EXPECT_EQ(images[1].slots, (std::vector<uint8_t>{3}));
}

TEST_F(FlashCatalogueTest, MissingModelDirectoryThrows) {
  std::filesystem::remove(Folder("CV13"));
  MiningContext context;
  EXPECT_THROW(LoadFlashCatalogue(context), std::filesystem::filesystem_error);
}

TEST_F(FlashCatalogueTest, MappedFileViewsAndOwnership) {
  std::string text(10000, 'a');
  for (size_t i = 0; i < text.size(); i++) text[i] = static_cast<char>('a' + i % 26);  // unaligned views differ
  WriteText(root_ / "image", text);
  WriteText(root_ / "empty", "");

  MappedFile whole(root_ / "image");
  EXPECT_EQ(Text(whole), text);
  MappedFile part(root_ / "image", 5000, 100);
  EXPECT_EQ(Text(part), text.substr(5000, 100));
  EXPECT_THROW(MappedFile(root_ / "image", 9990, 11), std::filesystem::filesystem_error);

  EXPECT_EQ(MappedFile(root_ / "empty").Size(), 0u);
  EXPECT_THROW(MappedFile(root_ / "absent"), std::filesystem::filesystem_error);

  MappedFile moved(std::move(part));
  EXPECT_EQ(part.Size(), 0u);
  EXPECT_EQ(Text(moved), text.substr(5000, 100));
  moved = std::move(whole);
  EXPECT_EQ(Text(moved), text);
}

}  // namespace
