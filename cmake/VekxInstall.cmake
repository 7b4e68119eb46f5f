# What `cmake --install` puts in place: the library, the server, the tool, the public headers and
# what they include, a CMake package (find_package(vekxapi) gives vekxapi::vekxapi) and a
# pkg-config file.
#
# The public headers are include/vekxapi as it stands in the tree: the automation types (on POSIX
# our own, in vekxapi/posix) and, for the generated interface header, the stand-ins for the
# Windows header names in vekxapi/compat, a folder of its own so that names like windows.h never
# land in a shared include folder.
include(CMakePackageConfigHelpers)

set(VEKX_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/vekxapi)
set(VEKX_INSTALL_COMPAT ${VEKX_INSTALL_HEADERS}/compat)
set(VEKX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vekxapi)

target_include_directories(vekxapi INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
if(NOT WIN32)
  target_include_directories(vekxapi INTERFACE $<INSTALL_INTERFACE:${VEKX_INSTALL_COMPAT}>)
endif()

install(TARGETS vekxapi EXPORT vekxapiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS vesta-kx RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET vesta-ctrl)
  install(TARGETS vesta-ctrl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TARGET vesta-gdbserver)
  install(TARGETS vesta-gdbserver RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

file(GLOB VEKX_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/vekxapi/*.h
                                               ${PROJECT_SOURCE_DIR}/include/vekxapi/*.def)
install(FILES ${VEKX_PUBLIC_HEADERS} ${VEKX_INTERFACE_HEADER}
        DESTINATION ${VEKX_INSTALL_HEADERS})
if(NOT WIN32)
  file(GLOB VEKX_POSIX_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/vekxapi/posix/*.h)
  install(FILES ${VEKX_POSIX_HEADERS} DESTINATION ${VEKX_INSTALL_HEADERS}/posix)
  file(GLOB VEKX_COMPAT_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/vekxapi/compat/*.h)
  install(FILES ${VEKX_COMPAT_HEADERS} DESTINATION ${VEKX_INSTALL_COMPAT})
endif()

install(EXPORT vekxapiTargets NAMESPACE vekxapi:: DESTINATION ${VEKX_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vekxapiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vekxapiConfig.cmake INSTALL_DESTINATION ${VEKX_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vekxapiConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vekxapiConfig.cmake
              ${PROJECT_BINARY_DIR}/vekxapiConfigVersion.cmake
        DESTINATION ${VEKX_INSTALL_CMAKEDIR})

# The .pc file finds the prefix from its own place, so that `cmake --install --prefix` anywhere
# gives a working file.
file(RELATIVE_PATH VEKX_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
if(WIN32)
  set(VEKX_PC_CFLAGS "-I\${includedir}")
else()
  set(VEKX_PC_CFLAGS "-I\${includedir} -I\${includedir}/vekxapi/compat")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/vekxapi.pc.in ${PROJECT_BINARY_DIR}/vekxapi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vekxapi.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
