#include "base/text_file.h"

#include <algorithm>
#include <cstdio>

namespace kestrelbridge {

int WriteTextFile(const char* path, std::string_view text) {
  std::FILE* file = std::fopen(path, "we");  // "e": not inherited by the shell that sets the rule
  if (file == nullptr) {
    return -1;
  }
  std::fwrite(text.data(), 1, text.size(), file);  // a full disk shows as a short file; no retry
  std::fclose(file);
  return 0;
}

void ReadTextFile(const char* path, std::span<char> text) {
  std::ranges::fill(text, '\0');
  std::FILE* file = std::fopen(path, "re");
  if (file == nullptr) {
    return;
  }
  const std::size_t length = std::fread(text.data(), 1, text.size() - 1, file);
  text[length] = '\0';
  std::fclose(file);
}

}  // namespace kestrelbridge
