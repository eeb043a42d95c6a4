#include "base/text_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/temporary_folder.h"

namespace kestrelbridge::test {
namespace {

// What another user puts in a file's place, and what became of the file that he aims at.
struct Trap {
  const char* name;
  void (*set)(const std::string& path, const std::string& victim);
  bool replaced;  // by ReplaceTextFile, when it stands in the place of the new file
};
constexpr Trap kTraps[] = {
    {"symbolic link",
     [](const std::string& path, const std::string& victim) {
       std::filesystem::create_symlink(victim, path);
     },
     true},
    {"second name",
     [](const std::string& path, const std::string& victim) {
       std::filesystem::create_hard_link(victim, path);
     },
     true},
    {"FIFO", [](const std::string& path, const std::string&) { mkfifo(path.c_str(), 0666); }, true},
    {"folder",
     [](const std::string& path, const std::string&) { std::filesystem::create_directory(path); },
     false},
};

TEST(TextFile, NeitherFollowsALinkNorWaits) {
  for (const Trap& trap : kTraps) {
    const TemporaryFolder folder;
    const std::string victim = folder.File("victim");
    std::ofstream(victim) << "secret";
    std::filesystem::permissions(victim, std::filesystem::perms::owner_all);
    const std::string path = folder.File("status");

    trap.set(path, victim);
    EXPECT_EQ(WriteTextFile(path.c_str(), "1"), -1) << trap.name;
    char text[20] = "before";
    ReadTextFile(path.c_str(), text);
    EXPECT_STREQ(text, "") << trap.name;

    trap.set(path + "x.tmp", victim);
    EXPECT_EQ(ReplaceTextFile((path + "x").c_str(), "new") == 0, trap.replaced) << trap.name;
    EXPECT_EQ(std::filesystem::exists(path + "x"), trap.replaced) << trap.name;
    EXPECT_EQ(ReadFile(victim), "secret") << trap.name;
    EXPECT_EQ(std::filesystem::status(victim).permissions(), std::filesystem::perms::owner_all)
        << trap.name;
  }
}

TEST(TextFile, HoldsExactlyWhatWasWrittenLast) {
  const TemporaryFolder folder;
  const std::string path = folder.File("status");
  char text[6];
  for (const char* written : {"1280", "", "720", "12345678"}) {
    EXPECT_EQ(WriteTextFile(path.c_str(), written), 0);
    EXPECT_EQ(ReadFile(path), written);
    ReadTextFile(path.c_str(), text);
    EXPECT_EQ(text, std::string(written).substr(0, 5));
  }
}

}  // namespace
}  // namespace kestrelbridge::test
