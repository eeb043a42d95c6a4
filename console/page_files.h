// The page's files, as they are in the program: compressed, each with a tag of its content.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace kestrelbridge::console {

struct PageFile {
  std::string_view path;  // "/player.js"; the page itself is "/"
  std::string_view type;
  std::string_view tag;  // quoted, as in ETag
  std::span<const std::uint8_t> gzip;
};

// Made of console/page by cmake/embed_page.cmake.
std::span<const PageFile> PageFiles();

}  // namespace kestrelbridge::console
