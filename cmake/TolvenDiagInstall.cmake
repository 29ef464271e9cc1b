# What `cmake --install` puts under the prefix: libtolven_diag and its header, the host stand-ins
# (which play the platform libraries on a host), tolven-diag with its documentation and bash
# completion, and the CMake and pkg-config packages. Every RUNPATH is relative to the installed
# file, so that a prefix can be moved as a whole; the stand-ins and the tool (which reads
# bugreport zips with libziparchive) also keep the folder of Debian's Android libraries.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

file(RELATIVE_PATH _bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(tolven_diag diag tolven_utils properties PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(tolven_utils properties tolven-diag PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)
set_target_properties(tolven-diag PROPERTIES INSTALL_RPATH "$ORIGIN/${_bin_to_lib}")

install(TARGETS tolven_diag diag tolven_utils properties LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/modem/hal/diag/include/tolven_diag.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS tolven-diag RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/tools/tolven-diag/tolven-diag.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
# Named after the command, so that bash-completion loads it on the first Tab.
install(FILES ${PROJECT_SOURCE_DIR}/tools/tolven-diag/tolven-diag.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tolven-diag)

# find_package(TolvenDiag) gives TolvenDiag::tolven_diag. The target is written by hand: an
# exported one would carry the stand-ins and the platform headers along as targets of their own.
set(_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TolvenDiag)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TolvenDiagConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/TolvenDiagConfig.cmake
                              INSTALL_DESTINATION ${_cmake_dir}
                              PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TolvenDiagConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TolvenDiagConfig.cmake
              ${PROJECT_BINARY_DIR}/TolvenDiagConfigVersion.cmake
        DESTINATION ${_cmake_dir})

# tolven_diag.pc finds the prefix from its own folder.
file(RELATIVE_PATH TOLVEN_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" TOLVEN_PC_PREFIX "${TOLVEN_PC_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tolven_diag.pc.in ${PROJECT_BINARY_DIR}/tolven_diag.pc
               @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tolven_diag.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
