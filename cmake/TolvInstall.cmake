# What `cmake --install` puts under the prefix:
#   bin/                      tolvClientWorker and veltrane-protocol.exe (side by side:
#                             the worker admits only the peer in its own folder)
#   lib/libtolv-*.{a,so}      the public libraries
#   include/tamsel, include/tolv
#   lib/cmake/tolv/           the CMake package: find_package(tolv) gives tolv::NAME
#   lib/pkgconfig/tolv-*.pc   one pkg-config file per public library
#   share/man/man1, share/doc/tolv
include(CMakePackageConfigHelpers)

get_property(tolv_installed GLOBAL PROPERTY TOLV_INSTALLED_LIBRARIES)

install(TARGETS tolvClientWorker veltraneProtocol RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS ${tolv_installed} EXPORT tolvTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(tolv_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tolv)
install(EXPORT tolvTargets NAMESPACE tolv:: DESTINATION ${tolv_cmake_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tolvConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/tolvConfig.cmake INSTALL_DESTINATION ${tolv_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tolvConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tolvConfig.cmake ${PROJECT_BINARY_DIR}/tolvConfigVersion.cmake
        DESTINATION ${tolv_cmake_dir})

# pkg-config: a library's own -l flag, the libraries it builds on directly as
# Requires (the rest follow through theirs, so each is named once), and what
# only a static link needs as Libs.private. The files find the prefix from
# where they are, so an installed tree can be moved.
file(RELATIVE_PATH TOLV_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
function(tolv_pkg_config name description requires libs_private)
  set(TOLV_PC_NAME tolv-${name})
  set(TOLV_PC_DESCRIPTION "${description}")
  set(TOLV_PC_REQUIRES "${requires}")
  set(TOLV_PC_LIBS_PRIVATE "${libs_private}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/tolv.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/tolv-${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/tolv-${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
tolv_pkg_config(platform "Linux system-call helpers and status codes" "" "-pthread")
tolv_pkg_config(logfront "Logging entry points, levels and the log sink" "tolv-platform fmt" "")
tolv_pkg_config(task "tamsel::task executors on an epoll thread pool" "tolv-logfront" "")
tolv_pkg_config(ipclib "tamsel::ipc shared-memory links, streams and the bootstrap client"
                "tolv-task" "-lisal -ldl")
tolv_pkg_config(drive "Drive request and reply records" "tolv-platform" "")

install(FILES docs/man/veltrane-protocol.exe.1 docs/man/tolvClientWorker.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}
        FILES_MATCHING PATTERN "*.md")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
