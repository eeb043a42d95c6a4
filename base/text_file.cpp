#include "base/text_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

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

int ReplaceTextFile(const char* path, std::string_view text) {
  constexpr mode_t kReadableForAll = 0644;
  const std::string beside = std::string(path) + ".tmp";
  std::FILE* file = std::fopen(beside.c_str(), "we");
  if (file == nullptr) {
    return -1;
  }
  const bool opened_to_all = fchmod(fileno(file), kReadableForAll) == 0;
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  const bool closed = std::fclose(file) == 0;  // where a full disk shows
  if (opened_to_all && written && closed && std::rename(beside.c_str(), path) == 0) {
    return 0;
  }
  unlink(beside.c_str());
  return -1;
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
