# Installation and packaging: `cmake --install` puts the library, its headers, a CMake package
# (find_package(Veltrano) gives Veltrano::veltrano) and a pkg-config file into the prefix, with
# the command-line program (with the studio module it loads), the chain files, the virtual sensor
# and the DICOM library (where DCMTK is found) as components of their own.
# CPack turns the same into Debian packages on Linux and a zip on Windows.
include(CMakePackageConfigHelpers)

set(VELTRANO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Veltrano)
set(VELTRANO_CHAIN_DIR ${CMAKE_INSTALL_DATADIR}/veltrano/chains)

install(TARGETS veltrano EXPORT VeltranoTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES include/veltrano.h include/veltrano_c.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(DIRECTORY include/veltrano DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT VeltranoTargets NAMESPACE Veltrano:: DESTINATION ${VELTRANO_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(cmake/VeltranoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VeltranoConfig.cmake INSTALL_DESTINATION ${VELTRANO_CMAKE_DIR}
  PATH_VARS VELTRANO_CHAIN_DIR)
# 0.x releases may change the interface with every minor version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VeltranoConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VeltranoConfig.cmake
              ${PROJECT_BINARY_DIR}/VeltranoConfigVersion.cmake
  DESTINATION ${VELTRANO_CMAKE_DIR} COMPONENT development)

# The prefix is found from the file's own place, so that the package may be installed anywhere.
file(RELATIVE_PATH VELTRANO_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/veltrano.pc.in ${PROJECT_BINARY_DIR}/veltrano.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/veltrano.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

install(DIRECTORY chains/ DESTINATION ${VELTRANO_CHAIN_DIR} COMPONENT program
  FILES_MATCHING PATTERN "*.chain" PATTERN "README.md")

if(TARGET veltrano_cli)
  # Installed, the program finds the library in ../lib (or beside it on Windows).
  file(RELATIVE_PATH _veltrano_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(veltrano_cli PROPERTIES INSTALL_RPATH "\$ORIGIN/${_veltrano_bin_to_lib}")
  install(TARGETS veltrano_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)
endif()
if(TARGET veltrano_studio_module)
  # The studio module goes with the program, which looks for it in this folder (lib/veltrano).
  install(TARGETS veltrano_studio_module LIBRARY DESTINATION ${VELTRANO_MODULE_DIR}
    COMPONENT program)
endif()

if(TARGET FpdSys)
  # The virtual sensor goes where the library looks for the driver: beside it (bin/ on
  # Windows, where the DLL search starts at the program's folder). A host that installs a real
  # sensor's driver leaves this component out.
  install(TARGETS FpdSys EXPORT VeltranoVirtualSensorTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT virtual_sensor
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT virtual_sensor
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT virtual_sensor)
  install(FILES virtual_sensor/virtual_sensor.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veltrano
    COMPONENT virtual_sensor)
  install(EXPORT VeltranoVirtualSensorTargets NAMESPACE Veltrano:: DESTINATION ${VELTRANO_CMAKE_DIR}
    COMPONENT virtual_sensor)
endif()

if(TARGET veltrano_dicom AND VELTRANO_DICOM_FOUND)
  # The DICOM writer and reader, only where it is built on DCMTK (never on Windows here): the
  # library, its headers and its imported target Veltrano::dicom together, so that a host either
  # has all of it or none. DCMTK is linked privately; a host needs DCMTK's run-time libraries only.
  install(TARGETS veltrano_dicom EXPORT VeltranoDicomTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dicom
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dicom
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dicom)
  install(FILES dicom/dicom.h dicom/dicom_identity.h dicom/dicom_export.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veltrano COMPONENT dicom)
  install(EXPORT VeltranoDicomTargets NAMESPACE Veltrano:: DESTINATION ${VELTRANO_CMAKE_DIR}
    COMPONENT dicom)
  set(VELTRANO_PACKAGE_DICOM ON)
else()
  set(VELTRANO_PACKAGE_DICOM OFF)
endif()

# Packages: one Debian package per component on Linux, one zip with everything on Windows.
set(CPACK_PACKAGE_NAME veltrano)
set(CPACK_PACKAGE_VENDOR "Veltrano developers")
set(CPACK_PACKAGE_CONTACT "Veltrano developers <veltrano@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL runtime development program virtual_sensor)
if(VELTRANO_PACKAGE_DICOM)
  list(APPEND CPACK_COMPONENTS_ALL dicom)
endif()
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
  set(CPACK_PACKAGE_FILE_NAME veltrano-${PROJECT_VERSION}-windows-${CMAKE_SYSTEM_PROCESSOR})
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The program and the virtual sensor depend on the library built here, not on an installed one.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
  set(CPACK_DEBIAN_PACKAGE_SECTION science)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libveltrano${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libveltrano-dev)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME veltrano)
  set(CPACK_DEBIAN_VIRTUAL_SENSOR_PACKAGE_NAME veltrano-virtual-sensor)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libveltrano${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS
    "libveltrano${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_VIRTUAL_SENSOR_PACKAGE_DEPENDS
    "libveltrano${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR} (= ${PROJECT_VERSION})")
  if(VELTRANO_PACKAGE_DICOM)
    # DCMTK's run-time libraries come through the shared-library dependencies. The program loads
    # this package's library when it reads or writes a DICOM file, which the shared-library
    # dependencies cannot see: it is named here.
    set(CPACK_DEBIAN_DICOM_PACKAGE_NAME libveltrano-dicom)
    set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS
      "${CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS}, libveltrano-dicom (= ${PROJECT_VERSION})")
  endif()
endif()
include(CPack)
