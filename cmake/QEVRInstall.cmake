# Installation: headers, libraries, the CMake package (find_package(QEVR
# CONFIG)), pkg-config's qevr.pc and a Debian package through CPack.
#
# libqevr.so is always installed: it is what C hosts and FFI bindings load.
# BUILD_SHARED_LIBS decides what a C++ host links through QEVR::QEVR and the
# per-module targets: OFF installs the static module libraries, ON points
# every target at libqevr.so.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

get_property(_qevr_modules GLOBAL PROPERTY QEVR_MODULES)

foreach(m IN LISTS _qevr_modules)
  get_target_property(_dir ${m} SOURCE_DIR)
  install(DIRECTORY "${_dir}/include/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT development FILES_MATCHING PATTERN "*.h")
endforeach()
install(DIRECTORY "${QEVR_GENERATED_INCLUDE_DIR}/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT development FILES_MATCHING PATTERN "*.h")

install(TARGETS qevr_shared EXPORT QEVRTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
set_target_properties(qevr_shared PROPERTIES EXPORT_NAME qevr)

if(BUILD_SHARED_LIBS)
  set(QEVR_LINKAGE shared)
else()
  set(QEVR_LINKAGE static)
  install(TARGETS ${_qevr_modules} EXPORT QEVRTargets
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
endif()

install(TARGETS qevr RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)

set(QEVR_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/QEVR")
install(EXPORT QEVRTargets NAMESPACE QEVR:: DESTINATION "${QEVR_CMAKE_DIR}"
  COMPONENT development)
set(QEVR_PACKAGE_MODULES ${_qevr_modules})
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/QEVRConfig.cmake.in"
  "${CMAKE_CURRENT_BINARY_DIR}/QEVRConfig.cmake" INSTALL_DESTINATION "${QEVR_CMAKE_DIR}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/QEVRConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/QEVRConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/QEVRConfigVersion.cmake"
  DESTINATION "${QEVR_CMAKE_DIR}" COMPONENT development)

# The prefix is found from the .pc file's own place, so the package works
# wherever `cmake --install --prefix` or dpkg put it.
file(RELATIVE_PATH QEVR_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file("${CMAKE_CURRENT_LIST_DIR}/qevr.pc.in" "${CMAKE_CURRENT_BINARY_DIR}/qevr.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/qevr.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qevr)
set(CPACK_PACKAGE_VENDOR "QEVR")
set(CPACK_PACKAGE_CONTACT "QEVR developers <qevr@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "On-device interaction memory, analysis and recommendations (C++20, C API)")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_PACKAGE_INSTALL_DIRECTORY qevr)
set(CPACK_OUTPUT_FILE_PREFIX "${CMAKE_BINARY_DIR}/packages")
include(CPack)
