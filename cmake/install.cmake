# What is installed, in three components: the libraries, what it takes to link them, and the program.
include(CMakePackageConfigHelpers)

set(headers_dir ${CMAKE_INSTALL_INCLUDEDIR}/peltexinstalld)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/peltexinstalld)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS peltexinstalld peltex_platform EXPORT peltexinstalld
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT libraries NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${headers_dir} COMPONENT development
    INCLUDES DESTINATION ${headers_dir})

install(EXPORT peltexinstalld NAMESPACE peltexinstalld:: FILE peltexinstalldTargets.cmake
    DESTINATION ${config_dir} COMPONENT development)
configure_package_config_file(cmake/peltexinstalldConfig.cmake.in peltexinstalldConfig.cmake
    INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(peltexinstalldConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_BINARY_DIR}/peltexinstalldConfig.cmake
    ${CMAKE_BINARY_DIR}/peltexinstalldConfigVersion.cmake
    DESTINATION ${config_dir} COMPONENT development)

# Relative to the file itself: the prefix is chosen when it is installed.
file(RELATIVE_PATH pkgconfig_to_prefix
    ${CMAKE_INSTALL_PREFIX}/${pkgconfig_dir} ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/peltexinstalld.pc.in peltexinstalld.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/peltexinstalld.pc
    DESTINATION ${pkgconfig_dir} COMPONENT development)

# The program looks for the library when it runs, and finds the one it was built or installed with.
file(RELATIVE_PATH bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(peltexctl PROPERTIES INSTALL_RPATH "$ORIGIN;$ORIGIN/${bin_to_lib}")
install(TARGETS peltexctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)
install(FILES docs/peltexctl.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
install(FILES tools/peltexctl.bash RENAME peltexctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT program)

# Laid out as here, so that they find each other: for those who link the library and for those who
# run the program.
function(install_documents component doc_dir)
    foreach(file IN ITEMS README.md CONTRIBUTING.md CHANGELOG.md platform/README.md
            tests/fuzz/README.md tests/client/embed/embed.cpp)
        get_filename_component(directory ${file} DIRECTORY)
        install(FILES ${file} DESTINATION ${doc_dir}/${directory} COMPONENT ${component})
    endforeach()
    install(DIRECTORY docs DESTINATION ${doc_dir} COMPONENT ${component} PATTERN peltexctl.1 EXCLUDE)
endfunction()
install_documents(development ${CMAKE_INSTALL_DOCDIR})
install_documents(program ${CMAKE_INSTALL_DATADIR}/doc/peltexctl)
