# What `cmake --install` installs: the programs, the libraries with their headers, the CMake package `cloudprovider` and
# two pkg-config files. Everything finds its neighbours relative to itself, so that an installed tree can be moved.

include(CMakePackageConfigHelpers)

set(libraries foundation cloudprovider)
set(stores
    cloudprovider_azure
    cloudprovider_cache
    cloudprovider_clients_common
    cloudprovider_credentials
    cloudprovider_decorators
    cloudprovider_http
    cloudprovider_local
    cloudprovider_memory
    cloudprovider_remote
    cloudprovider_s3
    cloudprovider_stores)
set(programs cloudfs)

set_target_properties(${libraries} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    INSTALL_RPATH "$ORIGIN")

file(RELATIVE_PATH libdir_from_bindir "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set_target_properties(${programs} PROPERTIES INSTALL_RPATH "$ORIGIN/${libdir_from_bindir}")

install(TARGETS ${libraries} ${stores} ${programs}
    EXPORT cloudprovider
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")

# What mount(8) runs for entries of /etc/fstab.
install(CODE "
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
    file(CREATE_LINK \"../${CMAKE_INSTALL_BINDIR}/cloudfs\"
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/mount.cloudfs\" SYMBOLIC)")

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/cloudprovider")
install(EXPORT cloudprovider
    FILE cloudproviderTargets.cmake
    NAMESPACE cloudprovider::
    DESTINATION "${package_dir}")

# The component for testing clients is separate, because only it needs GoogleTest.
if(BUILD_TESTING)
    install(TARGETS cloudprovider_testing
        EXPORT cloudprovider_testing
        FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
    install(EXPORT cloudprovider_testing
        FILE cloudproviderTestingTargets.cmake
        NAMESPACE cloudprovider::
        DESTINATION "${package_dir}")
endif()

configure_package_config_file(cmake/cloudproviderConfig.cmake.in
    "${CMAKE_CURRENT_BINARY_DIR}/package/cloudproviderConfig.cmake"
    INSTALL_DESTINATION "${package_dir}"
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/package/cloudproviderConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${CMAKE_CURRENT_BINARY_DIR}/package/cloudproviderConfig.cmake"
    "${CMAKE_CURRENT_BINARY_DIR}/package/cloudproviderConfigVersion.cmake"
    DESTINATION "${package_dir}")

# pkg-config works out the prefix from where the file itself lies.
file(RELATIVE_PATH prefix_from_pcdir
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" prefix_from_pcdir "${prefix_from_pcdir}")
foreach(module cloudprovider cloudprovider-stores)
    configure_file(cmake/${module}.pc.in "${CMAKE_CURRENT_BINARY_DIR}/package/${module}.pc" @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/package/${module}.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endforeach()

# The pages, and as files the code blocks whose fences name one: ```cpp host.cpp
function(house_install_examples page folder)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${page}")
    set(examples "${CMAKE_CURRENT_BINARY_DIR}/examples/${folder}")
    file(REMOVE_RECURSE "${examples}")
    file(READ "${page}" text)
    while(text MATCHES "\n```[a-z]+ ([A-Za-z0-9_.]+)\n")
        set(name "${CMAKE_MATCH_1}")
        set(fence "${CMAKE_MATCH_0}")
        string(FIND "${text}" "${fence}" begin)
        string(LENGTH "${fence}" length)
        math(EXPR begin "${begin} + ${length}")
        string(SUBSTRING "${text}" ${begin} -1 text)
        string(FIND "${text}" "```" end)
        string(SUBSTRING "${text}" 0 ${end} code)
        file(WRITE "${examples}/${name}" "${code}")
        string(SUBSTRING "${text}" ${end} -1 text)
    endwhile()
    install(DIRECTORY "${examples}" DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples")
endfunction()

install(DIRECTORY docs/ DESTINATION "${CMAKE_INSTALL_DOCDIR}" FILES_MATCHING PATTERN "*.md")
house_install_examples(docs/embedding.md embedding)
house_install_examples(docs/writing-a-client.md writing-a-client)
