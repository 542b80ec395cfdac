# zym_add_library(NAME SOURCES file... INCLUDES directory... LINKS target...)
#
# A static library whose include directories and links are public. Without any source it is an interface library of the
# same name, so that a tree in which only the headers of a part exist is configured and built.
function(zym_add_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;INCLUDES;LINKS")
  if(arg_SOURCES)
    add_library(${name} STATIC ${arg_SOURCES})
    set(scope PUBLIC)
  else()
    add_library(${name} INTERFACE)
    set(scope INTERFACE)
  endif()
  target_compile_features(${name} ${scope} cxx_std_20)
  foreach(directory IN LISTS arg_INCLUDES)
    target_include_directories(${name} ${scope} $<BUILD_INTERFACE:${directory}>)
  endforeach()
  target_link_libraries(${name} ${scope} ${arg_LINKS})
endfunction()
