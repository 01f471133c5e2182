# Warnings are errors, with both compilers; sanitizers are a property of a whole build directory.
add_compile_options(-Wall -Wextra -Werror -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety)
else()
  # The four-character pool tags are the kernel's convention.
  add_compile_options(-Wno-multichar)
endif()

if(SANITIZE STREQUAL "address")
  add_link_options(-fsanitize=address,undefined)
elseif(SANITIZE STREQUAL "thread")
  add_link_options(-fsanitize=thread)
elseif(SANITIZE STREQUAL "fuzzer")
  add_link_options(-fsanitize=address,undefined)
endif()

function(instrument target)
  if(SANITIZE STREQUAL "address")
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all)
  elseif(SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread)
  elseif(SANITIZE STREQUAL "fuzzer")
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  endif()
endfunction()

# The platform's own bookkeeping is serialised by a lock that ThreadSanitizer must not see: every call of the
# driver would otherwise appear ordered with every other, and the driver's own races would stay hidden. The
# orders that Windows really guarantees are announced to it one by one.
function(instrument_platform target)
  if(NOT SANITIZE STREQUAL "thread")
    instrument(${target})
  endif()
endfunction()
