# Install rules: the public headers, both libraries, the CMake package PellorinClient
# (find_package(PellorinClient CONFIG) gives PellorinClient::pellorin and
# PellorinClient::pellorin_static), pellorin.pc for pkg-config, the `pellorin` command and,
# when present, the Python module.
include(CMakePackageConfigHelpers)

set(PELLORIN_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/PellorinClient"
    CACHE STRING "Where the CMake package files go, relative to the prefix")
set(PELLORIN_INSTALL_PYTHONDIR "lib/python3/dist-packages"
    CACHE STRING "Where the Python module goes, relative to the prefix")

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/pellorin
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development
        FILES_MATCHING PATTERN "*.h")

install(TARGETS pellorin pellorin_static
        EXPORT PellorinClientTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
                NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

install(EXPORT PellorinClientTargets
        NAMESPACE PellorinClient::
        DESTINATION ${PELLORIN_INSTALL_CMAKEDIR}
        COMPONENT development)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/PellorinClientConfig.cmake.in
  ${PROJECT_BINARY_DIR}/PellorinClientConfig.cmake
  INSTALL_DESTINATION ${PELLORIN_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/PellorinClientConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PellorinClientConfig.cmake
              ${PROJECT_BINARY_DIR}/PellorinClientConfigVersion.cmake
        DESTINATION ${PELLORIN_INSTALL_CMAKEDIR}
        COMPONENT development)

# pkg-config: paths relative to the .pc file's own place, so the tree can be moved as a whole.
# The static link names libcurl, OpenSSL and libuuid in Libs.private rather than as
# Requires.private: `pkg-config --static` would otherwise ask for static archives of libcurl's
# own dependencies, which the system need not have; the shared ones serve.
file(RELATIVE_PATH PELLORIN_PC_PREFIX_FROM_PCDIR
     /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" PELLORIN_PC_PREFIX_FROM_PCDIR "${PELLORIN_PC_PREFIX_FROM_PCDIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/pellorin.pc.in ${PROJECT_BINARY_DIR}/pellorin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pellorin.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

if(TARGET pellorin_cli AND PELLORIN_BUILD_TOOLS)
  install(TARGETS pellorin_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

# The Python module (a pure package loading the shared library through ctypes), when present.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/pellorin
        DESTINATION ${PELLORIN_INSTALL_PYTHONDIR}
        COMPONENT python
        OPTIONAL
        PATTERN "__pycache__" EXCLUDE
        PATTERN "*.pyc" EXCLUDE)
