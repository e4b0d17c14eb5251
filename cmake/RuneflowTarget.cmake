# SPDX-License-Identifier: MIT

# Sets the compile options that all targets of this tree share. The warning options are private to the target. The
# presets turn warnings into errors (CMAKE_COMPILE_WARNING_AS_ERROR); a packager's build does not.
function(runeflow_target target)
  target_compile_features(${target} PUBLIC cxx_std_23)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
                                           -Wnon-virtual-dtor -Wimplicit-fallthrough -Wundef)
  # GCC 12 wrongly warns that a std::optional<std::string> may be used uninitialized (GCC PR 80635).
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  if(RUNEFLOW_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${RUNEFLOW_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${RUNEFLOW_SANITIZE})
  endif()
endfunction()
