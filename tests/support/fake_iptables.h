// A program "iptables" that does nothing but write down how it was called.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kestrelbridge {

// In a folder of its own, which goes with the object.
class FakeIptables {
 public:
  // The exit code that it ends with.
  explicit FakeIptables(int exit_code = 0);
  FakeIptables(const FakeIptables&) = delete;
  FakeIptables& operator=(const FakeIptables&) = delete;
  ~FakeIptables();

  // To be put first in PATH.
  std::string Folder() const { return folder_ / "bin"; }

  // An empty folder to work in: what a shell was tricked into writing shows here.
  std::string WorkFolder() const { return folder_ / "work"; }
  std::vector<std::string> Strays() const;

  // One string a call: the arguments, each in brackets.
  std::vector<std::string> Calls() const;

 private:
  std::filesystem::path folder_;
};

}  // namespace kestrelbridge
