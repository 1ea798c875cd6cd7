#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/unit/cli/Process.h"

namespace cli {
namespace {
namespace fs = std::filesystem;

/// A directory with bin/tarnflow, and agents that say who they are and what they were asked.
struct CheckTest : testing::Test {
  CheckTest() : root_(fs::temp_directory_path() / ("tarnflow-check-" + std::to_string(getpid()))) {
    for (const char* dir : {"bin", "sbin", "path"}) fs::create_directories(root_ / dir);
    fs::copy_file(TARNFLOW, root_ / "bin" / "tarnflow");
  }
  ~CheckTest() override { fs::remove_all(root_); }
  void agent(const std::string& dir) const {
    const fs::path file = root_ / dir / "tarnflowd";
    std::ofstream(file) << "#!/bin/sh\necho " << dir
                        << " \"$@\"\necho 'FILE:1:2: wrong' >&2\nexit 7\n";
    fs::permissions(file, fs::perms::owner_all);
  }
  std::string run() const {
    Process p({root_ / "bin" / "tarnflow", "check", "some file"}, {{"PATH", root_ / "path"}});
    const int status = p.wait();
    return std::to_string(status) + " " + p.rest() + p.errors();
  }
  const fs::path root_;
};

TEST_F(CheckTest, TheNearestAgentJudges) {
  EXPECT_EQ(run(), "2 tarnflow check: tarnflowd is neither in " + (root_ / "bin").string() +
                       " nor in " + (root_ / "sbin").string() +
                       " nor in PATH (No such file or directory)\n");
  for (const char* dir : {"path", "sbin", "bin"}) {
    agent(dir);
    EXPECT_EQ(run(), "7 " + std::string(dir) + " --check some file --effective\nFILE:1:2: wrong\n");
  }
}

}  // namespace
}  // namespace cli
