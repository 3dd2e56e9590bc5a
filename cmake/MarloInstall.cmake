# Installs the library, its public headers, a CMake package (Marlo::marlo)
# and a pkg-config file (marlo.pc).
include(CMakePackageConfigHelpers)

set(MARLO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Marlo)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/marlo
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(TARGETS marlo marlo_platform
        EXPORT MarloTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The host platform library's headers (Android's C interfaces and the test
# hooks), where the exported Marlo::marlo_platform target looks for them.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/host/include/
                  ${PROJECT_SOURCE_DIR}/platform/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/marlo_platform)

if(TARGET nax)
    install(TARGETS nax LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

install(EXPORT MarloTargets
        NAMESPACE Marlo::
        DESTINATION ${MARLO_CMAKE_DIR})

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/MarloConfig.cmake.in
    ${PROJECT_BINARY_DIR}/MarloConfig.cmake
    INSTALL_DESTINATION ${MARLO_CMAKE_DIR})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/MarloConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES
        ${PROJECT_BINARY_DIR}/MarloConfig.cmake
        ${PROJECT_BINARY_DIR}/MarloConfigVersion.cmake
        DESTINATION ${MARLO_CMAKE_DIR})

# The pkg-config file finds its prefix relative to itself, so an installed
# tree can be moved.
file(RELATIVE_PATH MARLO_PC_TO_PREFIX
     /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/marlo.pc.in ${PROJECT_BINARY_DIR}/marlo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/marlo.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
