# Compiler settings shared by every target, the external libraries, and the helpers that declare targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# Line numbers in traces and reports; only the debug build has a debugger's variables. This halves the object files.
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1 -DNDEBUG")
# For `./dev run`: as little time in the compiler as possible. Warnings are for the other builds. Sources that are compiled
# together would otherwise bring each other's undefined symbols into programs that use only one of them.
set(CMAKE_CXX_FLAGS_QUICK "-O0 -g0 -DNDEBUG -w -ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_QUICK "-Wl,--gc-sections")

option(VEXA_TESTS "Configure the tests, the fuzz targets and the measurements, which need more packages" ON)
set(VEXA_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")
option(VEXA_TESTS "Also tests, fuzz targets and measurements; the packages are built without them" ON)
option(VEXA_FUZZ "Build the fuzz targets with libFuzzer (clang only) in place of a run over their corpus" OFF)

# ccache(1), "Precompiled headers" and "Compiling in different directories". A precompiled header has the path of its
# build folder in it; the checksum that vexa_precompile writes is the same in every clone.
find_program(VEXA_CCACHE ccache)
if(VEXA_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_PCH_EXTSUM=1 CCACHE_NOHASHDIR=1
    CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} ${VEXA_CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wformat=2 -Wundef -Werror)
# The presets compile the address sanitizer with clang, which takes half of the time, and the thread sanitizer with g++: its
# runtime is a shared library, which tests that replace functions such as pthread_create can call.
if(VEXA_SANITIZE)
  # -O1 keeps the sanitizer builds quick enough to run on every change; -g1 keeps line numbers in reports.
  set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g1")
  add_compile_options(-fsanitize=${VEXA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VEXA_SANITIZE})
  # For the sources: g++ and clang have different macros for it.
  foreach(kind address thread)
    if(VEXA_SANITIZE MATCHES ${kind})
      string(TOUPPER VEXA_${kind}_SANITIZER macro)
      add_compile_definitions(${macro})
    endif()
  endforeach()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # According to gcc(1), sanitizers cause false positives of the first; the other builds keep it. By the second it warns
    # that it does not model atomic_thread_fence; Asio uses it in its own headers only.
    add_compile_options(-Wno-maybe-uninitialized -Wno-tsan)
  endif()
  if(VEXA_FUZZ)
    # Coverage everywhere; the engine, with its main function, is only linked to the fuzz targets.
    add_compile_options(-fsanitize=fuzzer-no-link)
    add_link_options(-fsanitize=fuzzer-no-link)
  endif()
else()
  add_link_options(-Wl,-z,relro,-z,now)
  if(CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
    # g++ 12 has false positives for concatenated strings (its bug 105651); the address sanitizer finds real ones.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      add_compile_options(-Wno-array-bounds -Wno-restrict -Wno-stringop-overflow -Wno-stringop-overread)
    endif()
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
  endif()
endif()

include_directories(${CMAKE_SOURCE_DIR})

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(FMT REQUIRED IMPORTED_TARGET fmt)
pkg_check_modules(LMDB REQUIRED IMPORTED_TARGET lmdb)
pkg_check_modules(GRPC REQUIRED IMPORTED_TARGET grpc++ protobuf)

# For code that runs once, such as tests and option parsers: optimising it costs the compiler more time than it saves.
# Fortified functions need optimisation.
set(VEXA_UNOPTIMIZED -O0 -U_FORTIFY_SOURCE)
# The same for tests. The tested code is checked for undefined behaviour; checking the tests would double compile time.
set(VEXA_TEST_OPTIONS ${VEXA_UNOPTIMIZED})
if(VEXA_SANITIZE MATCHES "undefined")
  list(APPEND VEXA_TEST_OPTIONS -fno-sanitize=undefined)
endif()

# vexa_precompile(TARGET HEADER...): precompiles the headers for the target, and for others with REUSE_FROM.
function(vexa_precompile target)
  target_precompile_headers(${target} PRIVATE ${ARGN})
  # What ccache compares in place of the precompiled header: a checksum of the text that it is made from.
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    set(precompiled ${CMAKE_CURRENT_BINARY_DIR}/CMakeFiles/${target}.dir/cmake_pch.hxx.pch)
    target_compile_options(${target} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
  else()
    set(precompiled ${CMAKE_CURRENT_BINARY_DIR}/CMakeFiles/${target}.dir/cmake_pch.hxx.gch)
  endif()
  list(TRANSFORM ARGN REPLACE "(.+)" "#include \\1\n" OUTPUT_VARIABLE includes)
  string(CONCAT includes ${includes})
  file(WRITE ${precompiled}.cpp "${includes}")
  list(TRANSFORM JSONCPP_INCLUDE_DIRS PREPEND -I OUTPUT_VARIABLE folders)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -std=c++20 ${folders} -E -P ${precompiled}.cpp
    OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
  string(SHA256 checksum "${text}")
  file(WRITE ${precompiled}.sum "${checksum}")
endfunction()

# What most sources include, read once. Not in the debug build, which clang-tidy reads: there a source that lacks an
# include must not compile.
if(NOT VEXA_FUZZ AND (VEXA_SANITIZE OR NOT CMAKE_BUILD_TYPE STREQUAL "Debug"))
  set(VEXA_HEADERS vexa_headers)
  add_library(vexa_headers STATIC ${CMAKE_SOURCE_DIR}/cmake/headers.cpp)
  vexa_precompile(vexa_headers
    <fmt/format.h> <json/value.h> <algorithm> <chrono> <functional> <map> <memory> <mutex> <optional> <set> <string> <variant> <vector>)
  target_link_libraries(vexa_headers PRIVATE PkgConfig::JSONCPP)
endif()

# vexa_group_sources(TARGET): with CMAKE_UNITY_BUILD, the compiler reads several sources of the target as one, and
# so their common headers once. Two sources that define the same name, such as a constant of their own, are in different
# groups: those are the names at the beginning of lines.
function(vexa_group_sources target)
  if(NOT CMAKE_UNITY_BUILD)
    return()
  endif()
  get_target_property(sources ${target} SOURCES)
  set(most 12)
  set(group 0)
  set(names_0)
  set(size_0 0)
  foreach(source ${sources})
    file(STRINGS ${source} lines REGEX "^[A-Za-z]")
    set(names)
    foreach(line ${lines})
      if(line MATCHES "^(namespace|using) ([A-Za-z_0-9]+) =")
        list(APPEND names ${CMAKE_MATCH_2})
      elseif(line MATCHES "^(using|namespace|public|private|extern) ?")
      elseif(line MATCHES "^(constexpr|const|static|inline) [^=({]*[ *&]([A-Za-z_0-9]+)(\\[[^=]*\\])?( =|{|;)")
        list(APPEND names ${CMAKE_MATCH_2})
      elseif(line MATCHES "^(struct|class|enum class|enum) ([A-Za-z_0-9]+)")
        list(APPEND names ${CMAKE_MATCH_2})
      elseif(line MATCHES "^[^=(]*[ *&]([A-Za-z_0-9]+)\\(")
        list(APPEND names ${CMAKE_MATCH_1})
      endif()
    endforeach()
    # The first group that has room and none of the names.
    set(chosen)
    foreach(i RANGE ${group})
      if(size_${i} GREATER_EQUAL most)
        continue()
      endif()
      set(is_free TRUE)
      foreach(name ${names})
        if(name IN_LIST names_${i})
          set(is_free FALSE)
          break()
        endif()
      endforeach()
      if(is_free)
        set(chosen ${i})
        break()
      endif()
    endforeach()
    if("${chosen}" STREQUAL "")
      math(EXPR group "${group} + 1")
      set(chosen ${group})
      set(names_${group})
      set(size_${group} 0)
    endif()
    list(APPEND names_${chosen} ${names})
    math(EXPR size_${chosen} "${size_${chosen}} + 1")
    set_source_files_properties(${source} PROPERTIES UNITY_GROUP group_${chosen})
  endforeach()
  set_target_properties(${target} PROPERTIES UNITY_BUILD_MODE GROUP)
endfunction()

# vexa_library(NAME SOURCES... LINK ...): one folder of the host as a static library.
function(vexa_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC ${arg_LINK})
  vexa_group_sources(${name})
  if(VEXA_HEADERS)
    target_precompile_headers(${name} REUSE_FROM ${VEXA_HEADERS})
  endif()
endfunction()

# The compiler needs longer for the common includes of the tests than for most tests themselves. A program, because its
# flags must equal those of the tests.
function(vexa_test_headers)
  add_executable(vexa_test_headers ${CMAKE_SOURCE_DIR}/tests/support/test_headers.cpp)
  target_compile_options(vexa_test_headers PRIVATE ${VEXA_TEST_OPTIONS})
  vexa_precompile(vexa_test_headers
    <gmock/gmock.h> <gtest/gtest.h> <json/value.h> <chrono> <functional> <map> <memory> <set> <string> <thread> <vector>)
  target_link_libraries(vexa_test_headers PRIVATE PkgConfig::JSONCPP GTest::gmock GTest::gtest Threads::Threads)
endfunction()

# Three times as fast as ld with many static libraries and their debug information: gold, which like ld is a part of
# binutils. It warns of symbols in clang's sanitizers, and lld does not.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  set(vexa_test_linker lld)
else()
  set(vexa_test_linker gold)
endif()
find_program(VEXA_TEST_LINKER_PROGRAM ld.${vexa_test_linker})

# vexa_test(NAME [SINGLE_THREADED] [ON_QEMU] SOURCES... LINK ... [TIMEOUT s] [SHARDS n]): one GoogleTest program, run by
# CTest as one test. Its label is its folder below tests/: unit, contract, system or regress.
#  SINGLE_THREADED  It never has a second thread, so the build for the thread sanitizer leaves it out.
#  ON_QEMU     CTest reports it as skipped where its program cannot run guests on QEMU.
#  TIMEOUT     Seconds, instead of 300. Tests with a longer one start first, even before CTest has measured them.
#  SHARDS      CTest runs it as n tests, NAME_1 to NAME_n, each with its share of the cases. They run beside each other.
function(vexa_test name)
  cmake_parse_arguments(arg "SINGLE_THREADED;ON_QEMU" "TIMEOUT;SHARDS" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_compile_options(${name} PRIVATE ${VEXA_TEST_OPTIONS})
  target_precompile_headers(${name} REUSE_FROM vexa_test_headers)
  if(VEXA_TEST_LINKER_PROGRAM)
    target_link_options(${name} PRIVATE -fuse-ld=${vexa_test_linker})
  endif()
  target_link_libraries(${name} PRIVATE ${arg_LINK} GTest::gmock GTest::gtest_main Threads::Threads)
  if(arg_SINGLE_THREADED AND VEXA_SANITIZE MATCHES "thread")
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
    return()
  endif()
  if(NOT arg_SHARDS)
    add_test(NAME ${name} COMMAND ${name})
    set(tests ${name})
  else()
    set(tests)
    foreach(shard RANGE 1 ${arg_SHARDS})
      add_test(NAME ${name}_${shard} COMMAND ${name})
      math(EXPR index "${shard} - 1")
      set_tests_properties(${name}_${shard} PROPERTIES
        ENVIRONMENT "GTEST_TOTAL_SHARDS=${arg_SHARDS};GTEST_SHARD_INDEX=${index}")
      list(APPEND tests ${name}_${shard})
    endforeach()
  endif()
  cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${CMAKE_SOURCE_DIR}/tests OUTPUT_VARIABLE label)
  string(REGEX REPLACE "/.*" "" label ${label})
  set_tests_properties(${tests} PROPERTIES TIMEOUT 300 LABELS ${label})
  if(arg_TIMEOUT)
    set_tests_properties(${tests} PROPERTIES TIMEOUT ${arg_TIMEOUT} COST ${arg_TIMEOUT})
  endif()
  if(arg_ON_QEMU)
    set_tests_properties(${tests} PROPERTIES SKIP_REGULAR_EXPRESSION "Guests on QEMU are not tested")
  endif()
endfunction()

# vexa_needs_programs(TARGET PROGRAM...): the target runs these programs of the build. It has the path of each as <PROGRAM>_PROGRAM.
function(vexa_needs_programs target)
  foreach(program ${ARGN})
    string(TOUPPER ${program}_PROGRAM path)
    target_compile_definitions(${target} PRIVATE ${path}="$<TARGET_FILE:${program}>")
    add_dependencies(${target} ${program})
  endforeach()
endfunction()

# vexa_fuzz(NAME SOURCES... LINK ...): one fuzz target, the program NAME_fuzz, whose corpus is fuzz/corpus/NAME. CTest
# runs it on its corpus; with VEXA_FUZZ it searches for new inputs instead (docs/fuzzing.md).
function(vexa_fuzz name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name}_fuzz ${arg_SOURCES})
  target_link_libraries(${name}_fuzz PRIVATE ${arg_LINK} Threads::Threads)
  if(VEXA_FUZZ)
    target_link_options(${name}_fuzz PRIVATE -fsanitize=fuzzer)
  else()
    target_sources(${name}_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/fuzz/corpus_driver.cpp)
    add_test(NAME fuzz_${name} COMMAND ${name}_fuzz ${CMAKE_SOURCE_DIR}/fuzz/corpus/${name})
    set_tests_properties(fuzz_${name} PROPERTIES TIMEOUT 300 LABELS fuzz)
  endif()
  if(NOT TARGET fuzz_targets)
    add_custom_target(fuzz_targets)
  endif()
  add_dependencies(fuzz_targets ${name}_fuzz)
endfunction()
