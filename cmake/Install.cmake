# What `cmake --install` lays below the prefix, in four components, which are the four packages. Nothing that is installed
# knows the prefix, so that `cmake --install --prefix` and the packages may choose another.
include(CMakePackageConfigHelpers)

set(mirelsnap_cmake_folder ${CMAKE_INSTALL_LIBDIR}/cmake/mirelsnap)
set(mirelsnap_pkgconfig_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# libmirelsnap1: what a program needs to run. The link without a version is for the compiler.
set_target_properties(mirelsnap_shared PROPERTIES EXPORT_NAME mirelsnap)
install(TARGETS mirelsnap_shared EXPORT mirelsnap
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libmirelsnap1 NAMELINK_COMPONENT libmirelsnap-dev)

# libmirelsnap-dev: what a program needs to be built.
install(TARGETS mirelsnap_static EXPORT mirelsnap
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libmirelsnap-dev)
# install(TARGETS) strips everything but archives.
install(CODE "if(CMAKE_INSTALL_DO_STRIP)
    execute_process(COMMAND ${CMAKE_STRIP} --strip-debug --enable-deterministic-archives
      \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libmirelsnap.a COMMAND_ERROR_IS_FATAL ANY)
  endif()" COMPONENT libmirelsnap-dev)
install(DIRECTORY include/mirelsnap DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT libmirelsnap-dev)

install(EXPORT mirelsnap NAMESPACE mirelsnap:: FILE mirelsnap-targets.cmake
  DESTINATION ${mirelsnap_cmake_folder} COMPONENT libmirelsnap-dev)
configure_package_config_file(packaging/mirelsnap-config.cmake.in ${PROJECT_BINARY_DIR}/packaging/mirelsnap-config.cmake
  INSTALL_DESTINATION ${mirelsnap_cmake_folder} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/mirelsnap-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/mirelsnap-config.cmake
              ${PROJECT_BINARY_DIR}/packaging/mirelsnap-config-version.cmake
  DESTINATION ${mirelsnap_cmake_folder} COMPONENT libmirelsnap-dev)

# The prefix as seen from the folder of the .pc file.
file(RELATIVE_PATH mirelsnap_prefix_from_pc /prefix/${mirelsnap_pkgconfig_folder} /prefix)
string(REGEX REPLACE "/$" "" mirelsnap_prefix_from_pc ${mirelsnap_prefix_from_pc})
configure_file(packaging/mirelsnap.pc.in ${PROJECT_BINARY_DIR}/packaging/mirelsnap.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/mirelsnap.pc
  DESTINATION ${mirelsnap_pkgconfig_folder} COMPONENT libmirelsnap-dev)

# mirelsnap: the programs.
install(TARGETS mirelsnap mirelsnap-emulator RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT mirelsnap)
install(FILES packaging/mirelsnap.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME mirelsnap COMPONENT mirelsnap)
install(FILES packaging/mirelsnap-reconcile.service DESTINATION lib/systemd/system COMPONENT mirelsnap)

# mirelsnap-dkms: the driver's sources, where DKMS finds them.
configure_file(packaging/dkms/dkms.conf.in ${PROJECT_BINARY_DIR}/packaging/dkms/dkms.conf @ONLY)
install(DIRECTORY kernel/ ${PROJECT_BINARY_DIR}/packaging/dkms/ DESTINATION src/mirelsnap-${PROJECT_VERSION}
  COMPONENT mirelsnap-dkms EXCLUDE_FROM_ALL FILES_MATCHING
  PATTERN *.c PATTERN *.h PATTERN Kbuild PATTERN Makefile PATTERN dkms.conf PATTERN *.mod.c EXCLUDE)

# Man pages, compressed without a time stamp.
function(install_man_page page component)
  get_filename_component(section ${page} LAST_EXT)
  string(SUBSTRING ${section} 1 1 section)
  set(compressed ${PROJECT_BINARY_DIR}/packaging/man/${page}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/packaging/man
    COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/man/${page} > ${compressed}
    DEPENDS packaging/man/${page} VERBATIM)
  string(MAKE_C_IDENTIFIER man_${page} target)
  add_custom_target(${target} ALL DEPENDS ${compressed})
  install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()
install_man_page(mirelsnap.1 mirelsnap)
install_man_page(mirelsnap-emulator.1 mirelsnap)
install_man_page(libmirelsnap.3 libmirelsnap-dev)
