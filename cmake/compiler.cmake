# Warnings are errors with both compilers. Sanitizers apply to a whole build directory.
add_compile_options(-Wall -Wextra -Werror -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety)
else()
  # Pool tags are four-character constants, as is usual in the kernel.
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

# A lock serializes the platform's own bookkeeping. ThreadSanitizer must not see it: otherwise every call of the driver
# would appear ordered with every other call, and races in the driver would stay hidden. The platform announces each
# order that Windows guarantees to ThreadSanitizer explicitly.
function(instrument_platform target)
  if(NOT SANITIZE STREQUAL "thread")
    instrument(${target})
  endif()
endfunction()
