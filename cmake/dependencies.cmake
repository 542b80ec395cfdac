# What the tree is built on: one place that says which library is wanted by whom.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS thread regex)
pkg_check_modules(LIBMNL REQUIRED IMPORTED_TARGET libmnl)

# Boost's headers as this project uses them.
add_library(zym_boost INTERFACE)
add_library(libprocess_manager::boost ALIAS zym_boost)
set_target_properties(zym_boost PROPERTIES EXPORT_NAME boost)
target_link_libraries(zym_boost INTERFACE Boost::headers)
target_compile_definitions(zym_boost INTERFACE BOOST_BIND_GLOBAL_PLACEHOLDERS)
# Asio of Boost 1.74 uses std::exchange in awaitable.hpp without including its header.
target_compile_options(zym_boost INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:SHELL:-include utility>")

if(ZYM_BUILD_MODULE)
  find_package(CLI11 REQUIRED)
  pkg_check_modules(PROMETHEUS_CORE REQUIRED IMPORTED_TARGET prometheus-cpp-core)
  find_path(RAPIDJSON_INCLUDE_DIR rapidjson/rapidjson.h REQUIRED)
  add_library(rapidjson INTERFACE)
  target_include_directories(rapidjson SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIR})
  target_compile_definitions(rapidjson INTERFACE RAPIDJSON_HAS_STDSTRING=1)
endif()
if(ZYM_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(ZYM_BUILD_BENCH)
  find_package(benchmark REQUIRED)
endif()
