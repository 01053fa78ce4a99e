# What `cmake --install` puts on a machine for an orchestrator team: the library
# with a versioned SONAME, its public headers, the three host platform libraries
# with the platform headers, a CMake package (imported target
# qov::autosync_orch) and a pkg-config file. All headers go to one folder, so a
# single -I serves the library's and the platform's headers alike. The host's
# control header is for this tree's tests and examples and is never installed.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QOV_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qov_autosync_orch)
set(QOV_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/qov_autosync_orch)

set_target_properties(qov_autosync_orch PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} EXPORT_NAME autosync_orch)
foreach(part base eal smooth)
  set_target_properties(qov_utils_${part} PROPERTIES EXPORT_NAME utils_${part})
endforeach()
set_target_properties(qov_host_api PROPERTIES EXPORT_NAME host_api)
set(QOV_INSTALL_TARGETS qov_autosync_orch qov_utils_base qov_utils_eal qov_utils_smooth)
# The source folders the targets name are this tree's; installed users get the
# install folder instead (INCLUDES DESTINATION below).
foreach(target ${QOV_INSTALL_TARGETS} qov_host_api)
  get_target_property(dirs ${target} INTERFACE_INCLUDE_DIRECTORIES)
  set_property(TARGET ${target} PROPERTY INTERFACE_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${dirs}>")
endforeach()
# The libraries find each other in the folder they are installed in.
set_target_properties(${QOV_INSTALL_TARGETS} PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS ${QOV_INSTALL_TARGETS} qov_host_api EXPORT qov_autosync_orch_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${QOV_INSTALL_INCLUDEDIR})
# The interface, the platform's declarations and the host API; never the
# host's control header.
set(QOV_PUBLIC_HEADERS
  include/qov_as_core.h
  include/qov_as_inbound.h
  include/qov_as_log.h
  include/qov_as_merge.h
  include/qov_as_smooth.h
  include/qov_as_syncgrp.h
  include/qov_autosync_orch.h
  include/qov_mergeque.h
  platform/qov_utils_base.h
  platform/qov_utils_eal.h
  platform/qov_utils_smooth.h
  platform/host/api/qov_host_api.h)
list(TRANSFORM QOV_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/)
install(FILES ${QOV_PUBLIC_HEADERS} DESTINATION ${QOV_INSTALL_INCLUDEDIR})

install(EXPORT qov_autosync_orch_targets NAMESPACE qov:: DESTINATION ${QOV_INSTALL_CMAKEDIR}
  FILE qov_autosync_orchTargets.cmake)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qov_autosync_orchConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qov_autosync_orchConfig.cmake INSTALL_DESTINATION ${QOV_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qov_autosync_orchConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qov_autosync_orchConfig.cmake
  ${PROJECT_BINARY_DIR}/qov_autosync_orchConfigVersion.cmake DESTINATION ${QOV_INSTALL_CMAKEDIR})

# pkg-config: relocatable, the prefix is found from the .pc file's own folder.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  message(FATAL_ERROR "CMAKE_INSTALL_LIBDIR must be relative to the prefix for the pkg-config file")
endif()
file(RELATIVE_PATH QOV_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
string(REGEX REPLACE "/$" "" QOV_PC_TO_PREFIX "${QOV_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/qov_autosync_orch.pc.in
  ${PROJECT_BINARY_DIR}/qov_autosync_orch.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qov_autosync_orch.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
