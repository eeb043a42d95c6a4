#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "support/temporary_folder.h"

namespace kestrelbridge {

// A program "iptables" that does nothing but write down how it was called.
class FakeIptables {
 public:
  FakeIptables() {
    const std::string program = folder_.File("iptables");
    std::ofstream(program) << "#!/bin/sh\n"
                           << "{ printf '[%s]' \"$@\"; echo; } >>'" << folder_.File("calls") << "'";
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  }

  // To be put first in PATH.
  std::string Folder() const { return folder_.Path(); }

  // One line a call: the arguments, each in brackets.
  std::string Calls() const { return ReadFile(folder_.File("calls")); }

 private:
  TemporaryFolder folder_;
};

}  // namespace kestrelbridge
