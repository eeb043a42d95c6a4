// Small text files: the status files that the daemon writes and the names that it reads. Only plain
// files with one name are touched: no link is followed, nothing is waited for.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace kestrelbridge {

// Opens the file for writing (creating or truncating it), writes the text as it is, without adding
// a newline, and closes it. Returns 0, or -1 without writing when no plain file can be opened.
// Any thread.
int WriteTextFile(const char* path, std::string_view text);

// The same, but whoever reads the path meets either its old content or the whole new one: the text
// is written beside it, to a new file with ".tmp" behind the path, and renamed. Everybody may read
// the file. Returns 0, or -1 when anything failed; the old file is still there then. One thread for
// each path.
int ReplaceTextFile(const char* path, std::string_view text);

// Reads the start of a file into `text`, which is filled with NULs first and keeps at least one at
// its end: at most text.size() - 1 bytes are used. A file that cannot be read leaves it empty.
// Any thread.
void ReadTextFile(const char* path, std::span<char> text);

}  // namespace kestrelbridge
