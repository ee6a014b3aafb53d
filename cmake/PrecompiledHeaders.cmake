# The standard, Boost and GoogleTest headers that most sources read are parsed once for all targets with the same flags.
# Each source still includes what it uses: builds with CMAKE_DISABLE_PRECOMPILE_HEADERS show what is missing.

set(house_common_headers
    <algorithm> <array> <atomic> <chrono> <compare> <condition_variable> <cstddef> <cstdint> <deque> <exception>
    <filesystem> <functional> <ios> <limits> <map> <memory> <mutex> <optional> <ostream> <set> <sstream> <stdexcept>
    <string> <string_view> <system_error> <type_traits> <unordered_map> <utility> <variant> <vector>
    <boost/date_time/posix_time/posix_time_types.hpp>
    <fmt/format.h>)
set(house_libraries_headers ${house_common_headers})
set(house_programs_headers ${house_common_headers})
set(house_tests_headers ${house_common_headers}
    <cstdlib> <fstream> <iostream> <random> <thread>
    <boost/filesystem/operations.hpp> <boost/iostreams/stream_buffer.hpp>
    <gmock/gmock.h> <gtest/gtest.h>)

# house_precompile_headers(TARGET GROUP): read the headers of the group "libraries", "programs" or "tests" from one
# precompiled file. GCC refuses that file to targets with other flags or macros.
function(house_precompile_headers target group)
    set(owner house_${group}_headers)
    if(NOT TARGET ${owner})
        file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/${owner}.cpp" CONTENT "")
        add_library(${owner} OBJECT "${PROJECT_BINARY_DIR}/${owner}.cpp")
        house_set_flags(${owner} ${group})
        target_link_libraries(${owner} PRIVATE Boost::date_time Boost::filesystem Boost::iostreams fmt::fmt)
        if(group STREQUAL "tests")
            target_link_libraries(${owner} PRIVATE GTest::gmock GTest::gtest)
        endif()
        # Without the time of its creation, the file is always the same, and so are the keys of ccache that depend on
        # it.
        target_compile_options(${owner} PRIVATE $<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>)
        target_precompile_headers(${owner} PRIVATE ${house_${group}_headers})
    endif()
    target_precompile_headers(${target} REUSE_FROM ${owner})
    # The macros of fmt, for targets that do not link it.
    target_compile_definitions(${target} PRIVATE $<TARGET_PROPERTY:fmt::fmt,INTERFACE_COMPILE_DEFINITIONS>)
endfunction()
