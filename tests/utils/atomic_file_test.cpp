// Atomic file writes: the target appears whole or not at all, and no
// temporary file is left behind either way.
#include "orbivane/utils/atomic_file.h"

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "synthetic/sample_data.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

std::vector<std::string> entries(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(folder)) names.push_back(e.path().filename().string());
  return names;
}

bool hasTemporaryLeftovers(const std::string& folder) {
  for (const auto& name : entries(folder)) {
    if (name.find(".tmp-") != std::string::npos) return true;
  }
  return false;
}

}  // namespace

TEST(AtomicFile, WritingReplacesTheWholeContent) {
  Synthetic::TemporaryDirectory dir;
  const std::string path = dir.file("camera.json");
  ASSERT_TRUE(Utils::writeFileAtomically(path, "a rather long first content\n").hasValue());
  EXPECT_EQ(Synthetic::readText(path), "a rather long first content\n");
  const std::string binary("x\0y\xFF\n", 5);
  const auto second = Utils::writeFileAtomically(path, binary);
  ASSERT_TRUE(second.hasValue()) << second.error();
  EXPECT_EQ(Synthetic::readText(path), binary);
  EXPECT_THAT(entries(dir.path()), ::testing::ElementsAre("camera.json"));
  // The temporary file's private mode is not kept.
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  // An empty content gives an empty file.
  ASSERT_TRUE(Utils::writeFileAtomically(path, "").hasValue());
  EXPECT_EQ(fs::file_size(path), 0u);
}

TEST(AtomicFile, MissingFolderFailsNamingThePathAndCreatesNothing) {
  Synthetic::TemporaryDirectory dir;
  const std::string path = dir.file("missing/deeper/out.txt");
  const auto result = Utils::writeFileAtomically(path, "text");
  ASSERT_TRUE(result.hasError());
  EXPECT_THAT(result.error(), HasSubstr(path));
  EXPECT_FALSE(fs::exists(dir.file("missing")));
  EXPECT_TRUE(entries(dir.path()).empty());
}

TEST(AtomicFile, FailedReplaceLeavesTheTargetIntact) {
  Synthetic::TemporaryDirectory dir;
  // The target is a folder with content: the rename must fail and nothing of
  // the folder may change.
  const std::string target = dir.file("target");
  fs::create_directory(target);
  Synthetic::writeText(target + "/inside.txt", "keep me");
  const auto result = Utils::writeFileAtomically(target, "replacement");
  ASSERT_TRUE(result.hasError());
  EXPECT_THAT(result.error(), HasSubstr(target));
  EXPECT_TRUE(fs::is_directory(target));
  EXPECT_EQ(Synthetic::readText(target + "/inside.txt"), "keep me");
  EXPECT_FALSE(hasTemporaryLeftovers(dir.path()));
  EXPECT_THAT(entries(dir.path()), ::testing::ElementsAre("target"));
}
