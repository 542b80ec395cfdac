# Flags of every target of this tree.

include(CheckCXXCompilerFlag)

# A designated initialiser leaves the other members to their defaults, which is what it is for.
add_compile_options(-Wall -Wextra -Wshadow -Wimplicit-fallthrough -Wno-missing-field-initializers)
if(ZYM_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
# The level of the warning came with GCC 13; without it the warning also fires on an overload that is meant.
check_cxx_compiler_flag(-Woverloaded-virtual=1 ZYM_HAVE_OVERLOADED_VIRTUAL_1)
if(ZYM_HAVE_OVERLOADED_VIRTUAL_1)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual=1>)
endif()

# A trace prints the path from src/ on. Of two prefixes that match, the later option has precedence.
add_compile_options(
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/src/=)

# An STB_GNU_UNIQUE symbol pins its library in the process: dlclose would no longer unload the module.
check_cxx_compiler_flag(-fno-gnu-unique ZYM_HAVE_NO_GNU_UNIQUE)
if(ZYM_HAVE_NO_GNU_UNIQUE)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()

add_compile_options(-fstack-protector-strong)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # A precompiled header stays out of the preprocessed text, by which ccache knows a file again.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fpch-preprocess>)
endif()
add_link_options(-Wl,-z,relro,-z,now)

if(ZYM_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ZYM_FUZZ needs clang++: configure with the preset 'fuzz'")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(ZYM_SANITIZE)
  add_compile_options(-fsanitize=${ZYM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZYM_SANITIZE})
  if(ZYM_SANITIZE MATCHES "undefined")
    # Its check opens a pipe at each call of a member: several times slower, and it takes descriptors from tests that
    # have none left on purpose.
    add_compile_options(-fno-sanitize=vptr)
  endif()
  if(ZYM_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC does not follow std::atomic_thread_fence under the thread sanitizer and warns in Boost's headers.
    add_compile_options(-Wno-tsan)
  endif()
else()
  # Fortification reads the same calls as the sanitizers do, and needs optimisation.
  add_compile_options($<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
                      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
endif()
add_compile_definitions($<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)

if(ZYM_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

find_program(ZYM_MOLD mold)
if(ZYM_MOLD)
  add_link_options(-fuse-ld=mold)
endif()
find_program(ZYM_CCACHE ccache)
if(ZYM_CCACHE)
  foreach(language C CXX)
    if(NOT CMAKE_${language}_COMPILER_LAUNCHER)
      # What a precompiled header leaves out of the preprocessed text is said by the header's own checksum.
      set(CMAKE_${language}_COMPILER_LAUNCHER
        ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${ZYM_CCACHE})
    endif()
  endforeach()
endif()
