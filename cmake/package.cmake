# Debian packages of the three components; scripts/package.sh configures and runs this.
set(PELTEX_PACKAGE_DATE "" CACHE STRING "Of the packages' changelog, as RFC 5322 writes it")

set(runtime_package libpeltexinstalld${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libpeltexinstalld-dev)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME peltexctl)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libraries development program)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)

# The program loads the library and Nettle when it runs, and the headers are those of one version:
# none is found by looking at what links what.
set(package_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${package_version})")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "${runtime_package} (= ${package_version}), libnettle8")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${CMAKE_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/triggers)

set(CPACK_COMPONENT_LIBRARIES_DESCRIPTION "backup and restore of Android application data
Copies files and trees of applications with a record of their permissions,
packs them into tar archives, whole or in slices that a client takes one at a
time, and restores all of them with owners mapped to an application.
.
This package contains the library and its stand-in for the platform's
libraries on a Linux host.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "backup and restore of Android application data - development files
Copies files and trees of applications with a record of their permissions,
packs them into tar archives, whole or in slices that a client takes one at a
time, and restores all of them with owners mapped to an application.
.
This package contains what it takes to embed the library in a program:
headers, files for CMake and pkg-config, and the documents.")
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "client for backups of Android application data
Drives libpeltexinstalld on a Linux host: backs up and restores files and
directories as copies, tar archives or sets of slices, and lists, verifies and
exports such archives, also those that came from a device.")

# Each package comes with the changelogs, compressed like the manual page.
configure_file(cmake/changelog.Debian.in changelog.Debian @ONLY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES CHANGELOG.md
        DESTINATION ${doc_dir} RENAME changelog COMPONENT ${component})
    install(FILES ${CMAKE_BINARY_DIR}/changelog.Debian
        DESTINATION ${doc_dir} COMPONENT ${component})
endforeach()
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/compress_documents.cmake)

include(CPack)
