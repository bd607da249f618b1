# Installs the library, its headers, the kesta tool, a CMake package
# (find_package(KestaDSP) -> KestaDSP::kestadsp) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS kestadsp EXPORT KestaDSPTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/dsp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/include/dsp/kestadsp_export.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/dsp)

if(KESTADSP_BUILD_CLI)
  install(TARGETS kesta RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(KESTADSP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KestaDSP)
install(EXPORT KestaDSPTargets NAMESPACE KestaDSP:: DESTINATION ${KESTADSP_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KestaDSPConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KestaDSPConfig.cmake INSTALL_DESTINATION ${KESTADSP_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KestaDSPConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KestaDSPConfig.cmake ${PROJECT_BINARY_DIR}/KestaDSPConfigVersion.cmake
  DESTINATION ${KESTADSP_CMAKE_DIR})

if(KESTADSP_STATIC)
  set(KESTADSP_PC_CFLAGS "-DKESTADSP_STATIC_DEFINE")
else()
  set(KESTADSP_PC_CFLAGS "")
endif()
# The prefix is found from where the .pc file lies, so the file is right for whatever
# `cmake --install --prefix DIR` chose (and after the tree is moved); absolute dirs stay as given.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KESTADSP_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH KESTADSP_PC_UP "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
  string(REGEX REPLACE "/$" "" KESTADSP_PC_UP "${KESTADSP_PC_UP}")
  set(KESTADSP_PC_PREFIX "\${pcfiledir}/${KESTADSP_PC_UP}")
endif()
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(KESTADSP_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(KESTADSP_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/kestadsp.pc.in ${PROJECT_BINARY_DIR}/kestadsp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kestadsp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
