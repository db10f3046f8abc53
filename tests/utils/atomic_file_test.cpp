// Atomic file writes: the target appears whole or not at all, and no
// temporary file is left behind either way.
#include "orbivane/utils/atomic_file.h"

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <thread>
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

// Threads that each take the lock, read a counter file, and write it back one
// higher: with the lock no increment is lost, although every release removes
// the lock file that the next holder may already have opened; afterwards no
// lock file is left beside the guarded file.
TEST(FileLock, SerialisesWritersAndLeavesNoLockFileBehind) {
  Synthetic::TemporaryDirectory dir;
  const std::string counter = dir.file("counter.txt");
  Synthetic::writeText(counter, "0");
  constexpr int kThreads = 4, kRounds = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int r = 0; r < kRounds; ++r) {
        const Utils::FileLock lock(counter);
        ASSERT_TRUE(lock.held()) << lock.error();
        const int value = std::stoi(Synthetic::readText(counter));
        std::this_thread::yield();
        ASSERT_TRUE(Utils::writeFileAtomically(counter, std::to_string(value + 1)));
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(Synthetic::readText(counter), std::to_string(kThreads * kRounds));
  EXPECT_THAT(entries(dir.path()), ::testing::ElementsAre("counter.txt"));
}

TEST(FileLock, AFolderThatCannotHoldTheLockFileIsNamed) {
  Synthetic::TemporaryDirectory dir;
  const Utils::FileLock lock(dir.file("missing/state.json"));
  EXPECT_FALSE(lock.held());
  EXPECT_THAT(lock.error(), HasSubstr("missing/state.json"));
}
