# What every target of this project has in common: the language level, warnings as errors and hidden symbols.
# Flags belong to targets; nothing is written to CMAKE_CXX_FLAGS. Sanitizers and optimisation are the presets' choice.

set(CLOUDPROVIDER_SANITIZE "" CACHE STRING "Value for -fsanitize=, empty for none")

include(PrecompiledHeaders)

# house_target(TARGET [GROUP]): GROUP says which precompiled headers, by default "libraries" or "programs".
function(house_target target)
    get_target_property(type ${target} TYPE)
    set(group libraries)
    if(ARGC GREATER 1)
        set(group ${ARGV1})
    elseif(type STREQUAL "EXECUTABLE")
        set(group programs)
    endif()
    house_set_flags(${target} ${group})
    house_precompile_headers(${target} ${group})
    if(NOT type STREQUAL "EXECUTABLE")
        set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
    endif()
endfunction()

function(house_set_flags target group)
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wunused
        -Wconversion -Wsign-conversion -Wnull-dereference -Wdouble-promotion -Wformat=2 -Werror
        # Checks what the attributes of Mutex.hpp say, which only clang understands.
        $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
        # False positives of g++ 12: an optional may be empty where it was tested before, and "literal" + string copies
        # between overlapping strings. The standard library silences the latter with pragmas, which g++ does not keep in
        # a precompiled header. clang and the sanitizers find the real faults.
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized;-Wno-restrict>)
    get_target_property(type ${target} TYPE)
    if(NOT type STREQUAL "EXECUTABLE" AND NOT group STREQUAL "libraries")
        # As executables are compiled.
        set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
        target_compile_options(${target} PRIVATE -fPIE)
    endif()
    if(group STREQUAL "tests")
        # Optimising test code takes longer than it saves, and causes false -Wnull-dereference warnings of g++ 12 in the
        # standard library.
        target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-Og>)
    endif()
    if(CLOUDPROVIDER_SANITIZE)
        # Public, so that every executable that links a sanitized library is linked with its runtime.
        target_compile_options(${target} PUBLIC
            $<BUILD_INTERFACE:-fsanitize=${CLOUDPROVIDER_SANITIZE};-fno-omit-frame-pointer;-fno-sanitize-recover=all>)
        target_link_options(${target} PUBLIC $<BUILD_INTERFACE:-fsanitize=${CLOUDPROVIDER_SANITIZE}>)
    endif()
endfunction()

# house_add_test(NAME SOURCES file… [LIBRARIES target…] [INCLUDES folder…])
# Add one test program per component. Each of its cases becomes a CTest case, with a timeout that only a hanging case
# reaches.
function(house_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;INCLUDES" ${ARGN})
    if(NOT BUILD_TESTING)
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    house_target(${name} tests)
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gmock GTest::gtest GTest::gtest_main)
    target_include_directories(${name} PRIVATE ${ARG_INCLUDES})
    include(GoogleTest)
    # Rows have names of their own; the values behind them are pages of bytes.
    gtest_discover_tests(${name} TEST_PREFIX "${name}." NO_PRETTY_VALUES DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
    foreach(source IN LISTS ARG_SOURCES)
        cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}" NORMALIZE)
        set_property(GLOBAL APPEND PROPERTY HOUSE_TEST_FILES "${source}")
    endforeach()
endfunction()

# A test file that no target names would silently never run.
function(house_check_test_files)
    if(NOT BUILD_TESTING)
        return()
    endif()
    file(GLOB_RECURSE files CONFIGURE_DEPENDS
        "${PROJECT_SOURCE_DIR}/foundation/test/*.cpp"
        "${PROJECT_SOURCE_DIR}/storage/*/test/*.cpp"
        "${PROJECT_SOURCE_DIR}/storage/clients/*/test/*.cpp"
        "${PROJECT_SOURCE_DIR}/tools/*/test/*.cpp")
    get_property(named GLOBAL PROPERTY HOUSE_TEST_FILES)
    foreach(file IN LISTS files)
        if(NOT file IN_LIST named)
            message(FATAL_ERROR "${file} is in no test target")
        endif()
    endforeach()
endfunction()
