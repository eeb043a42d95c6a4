# Makes a C++ file of the console's page: each file compressed with gzip, with its type and a tag.
#
#   cmake -D folder=FOLDER -D files=FILE;... -D output=FILE -P embed_page.cmake
#
# FILEs are relative to the FOLDER.

set(types html "text/html\; charset=utf-8" css "text/css\; charset=utf-8"
          js "text/javascript\; charset=utf-8" json application/json svg image/svg+xml png image/png
          webmanifest application/manifest+json woff2 font/woff2)
set(arrays "")
set(rows "")
set(number 0)
foreach(file IN LISTS files)
  cmake_path(GET file EXTENSION LAST_ONLY extension)
  string(SUBSTRING "${extension}" 1 -1 extension)
  list(FIND types "${extension}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${folder}/${file}: no type is known for .${extension} (cmake/embed_page.cmake)")
  endif()
  math(EXPR at "${at} + 1")
  list(GET types ${at} type)
  set(compressed ${output}.${number}.gz)
  # -n: neither name nor time, so that the same content is the same bytes.
  execute_process(COMMAND gzip -9 -n -c ${folder}/${file} OUTPUT_FILE ${compressed}
                  COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${compressed} bytes HEX)
  file(SHA256 ${compressed} tag)
  file(REMOVE ${compressed})
  string(SUBSTRING ${tag} 0 16 tag)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "constexpr std::uint8_t kFile${number}[] = {\n${bytes}};\n")
  set(path "/${file}")
  if(file STREQUAL index.html)
    set(path "/")
  endif()
  string(APPEND rows "    {\"${path}\", \"${type}\", \"\\\"${tag}\\\"\", kFile${number}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${output} "// Made by cmake/embed_page.cmake.
#include <array>

#include \"console/page_files.h\"

namespace kestrelbridge::console {
namespace {

${arrays}
constexpr std::array<PageFile, ${number}> kFiles = {{
${rows}}};

}  // namespace

std::span<const PageFile> PageFiles() { return kFiles; }

}  // namespace kestrelbridge::console
")
