#include "support/fake_iptables.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace kestrelbridge {
namespace {

namespace fs = std::filesystem;

}  // namespace

FakeIptables::FakeIptables(int exit_code) {
  std::string name = fs::temp_directory_path() / "kestrelbridge-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("cannot make " + name);
  }
  folder_ = name;
  fs::create_directory(Folder());
  fs::create_directory(WorkFolder());
  const std::string program = Folder() + "/iptables";
  std::ofstream(program) << "#!/bin/sh\n"
                         << "{ printf '[%s]' \"$@\"; echo; } >>'" << name << "/calls'\n"
                         << "exit " << exit_code << "\n";
  fs::permissions(program, fs::perms::owner_all);
}

FakeIptables::~FakeIptables() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::vector<std::string> FakeIptables::Strays() const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(WorkFolder())) {
    names.push_back(entry.path().filename());
  }
  return names;
}

std::vector<std::string> FakeIptables::Calls() const {
  std::vector<std::string> calls;
  std::ifstream lines(folder_ / "calls");
  for (std::string line; std::getline(lines, line);) {
    calls.push_back(line);
  }
  return calls;
}

}  // namespace kestrelbridge
