// Whatever text the main application sends, the camera gets at most the two frames of one command,
// and nothing without the marker.
//
//   input:   the text; the endpoint puts a NUL behind it

#include "control/app_commands.h"
#include "fuzz/fuzz_stage.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrelbridge;
  using namespace kestrelbridge::test;
  constexpr std::size_t kLongestText = 9'999;
  std::vector<char> text(data, data + std::min(size, kLongestText));
  text.push_back('\0');
  text.shrink_to_fit();
  DispatchAppCommand(text.data());
  RequireSoundPackets(text.front() == '!' ? 2 : 0);
  return 0;
}
