# Warnings and sanitizers for every target of the project.

option(KESTRELBRIDGE_WERROR "Treat compiler warnings as errors (our presets and CI)" OFF)
set(KESTRELBRIDGE_SANITIZE "" CACHE STRING "Sanitizers, as for -fsanitize= (address,undefined or thread)")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KESTRELBRIDGE_WERROR)
  add_compile_options(-Werror)
endif()

if(KESTRELBRIDGE_SANITIZE)
  # -O1 and line numbers alone: compiles in nearly half the time, and reports are as readable.
  add_compile_options(-fsanitize=${KESTRELBRIDGE_SANITIZE} -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${KESTRELBRIDGE_SANITIZE})
  if(KESTRELBRIDGE_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  if(KESTRELBRIDGE_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # g++ warns that ThreadSanitizer does not model fences. The frame block's fences order memory
    # that is shared with other processes, where the sanitizer does not look anyway.
    add_compile_options(-Wno-tsan)
  endif()
endif()

# A link's peer is one 64-bit atomic; the oldest ARM cores need libatomic for that.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("
  #include <atomic>
  #include <cstdint>
  std::atomic<std::uint64_t> value{1};
  int main() { return static_cast<int>(value.exchange(2) - 1); }"
  KESTRELBRIDGE_ATOMIC64_BUILTIN)
if(NOT KESTRELBRIDGE_ATOMIC64_BUILTIN)
  link_libraries(atomic)
endif()
