# Packages made by cpack from the install components (runtime, development, tools):
#   Linux:   Debian packages libquelworksN (the two shared libraries; N is the C++ library's
#            major version, as in its file name libquelworks.so.N), libquelworks-dev (headers,
#            link libraries, CMake and pkg-config files) and quelworks-tools (the programs).
#   Windows: one zip with bin/ (DLLs and programs), lib/ (import libraries, CMake and pkg-config
#            files), include/, and README, CHANGELOG and LICENSE at the top.
# scripts/package.sh builds both; see README "Install".
set(QUELWORKS_PACKAGE_MAINTAINER "quelworks maintainers <maintainers@quelworks.invalid>"
    CACHE STRING "Maintainer named in the Debian packages")

set(CPACK_PACKAGE_NAME quelworks)
set(CPACK_PACKAGE_VENDOR "quelworks")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${QUELWORKS_PACKAGE_MAINTAINER}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(_qw_components runtime development)
if(TARGET quelworks-cli OR TARGET quelworks-devsim)
    list(APPEND _qw_components tools)
endif()

if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
        "Serial links, bootloader client, plane geometry and INI files for device control")
    set(CPACK_PACKAGE_FILE_NAME "quelworks-${PROJECT_VERSION}-win64")
    set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
    set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
    set(CPACK_COMPONENTS_ALL ${_qw_components} documents)
    install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        ${PROJECT_SOURCE_DIR}/LICENSE
        DESTINATION . COMPONENT documents)
else()
    set(CPACK_GENERATOR DEB)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL ${_qw_components})
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QUELWORKS_PACKAGE_MAINTAINER}")
    set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
    set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
    # Dependencies on system libraries come from dpkg-shlibdeps; those between our own packages
    # from the component dependencies below, pinned to this exact version.
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
    set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libquelworks${PROJECT_VERSION_MAJOR})
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
    # A shlibs file, so that packages built against these libraries get their dependency on
    # this package from dpkg-shlibdeps, and the ldconfig trigger.
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
    file(WRITE ${PROJECT_BINARY_DIR}/packaging/runtime/triggers "activate-noawait ldconfig\n")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/runtime/triggers)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
    string(CONCAT CPACK_COMPONENT_RUNTIME_DESCRIPTION
        "shared libraries for serially attached device control\n"
        "quelworks is a library for control applications of a serially attached,\n"
        "camera-guided device: serial links, CRC-16, a bootloader client, plane\n"
        "geometry, lookup tables and INI files.\n"
        "This package holds the C++ library (libquelworks.so.${PROJECT_VERSION_MAJOR}) and the C\n"
        "interface (libquelworks_c.so.${QW_C_VERSION_MAJOR}).")

    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquelworks-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    string(CONCAT CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
        "development files for the quelworks libraries\n"
        "Headers, link libraries, the CMake package (find_package(quelworks)) and\n"
        "the pkg-config files (quelworks, quelworks_c) for building programs with\n"
        "the quelworks C++ library or its C interface.")

    set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME quelworks-tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
    string(CONCAT CPACK_COMPONENT_TOOLS_DESCRIPTION
        "quelworks command and simulated device\n"
        "The quelworks command lists serial ports, reads a device's identity,\n"
        "updates its firmware and covers or hatches outlines. quelworks-devsim\n"
        "simulates the device on a pseudo-terminal, for trying the command and\n"
        "for tests.")

    # Each package carries the copyright file, the project's changelog (changelog.gz) and a short
    # Debian changelog for this packaging (changelog.Debian.gz) in its documentation folder.
    find_program(QW_GZIP gzip)
    if(NOT QW_GZIP)
        message(WARNING "gzip not found: the Debian packages will lack their changelogs")
    endif()
    set(_qw_pkgdir ${PROJECT_BINARY_DIR}/packaging)
    string(TIMESTAMP _qw_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
    file(WRITE ${_qw_pkgdir}/changelog.Debian
        "quelworks (${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
        "  * Release ${PROJECT_VERSION}; changelog.gz lists the changes.\n\n"
        " -- ${QUELWORKS_PACKAGE_MAINTAINER}  ${_qw_date}\n")
    if(QW_GZIP)
        execute_process(COMMAND ${QW_GZIP} -9nc ${PROJECT_SOURCE_DIR}/CHANGELOG.md
            OUTPUT_FILE ${_qw_pkgdir}/changelog.gz)
        execute_process(COMMAND ${QW_GZIP} -9nc ${_qw_pkgdir}/changelog.Debian
            OUTPUT_FILE ${_qw_pkgdir}/changelog.Debian.gz)
    endif()
    foreach(_comp IN LISTS _qw_components)
        string(TOUPPER ${_comp} _upper)
        set(_doc ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${_upper}_PACKAGE_NAME})
        # EXCLUDE_FROM_ALL: only in the packages, not in a plain `cmake --install`.
        install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${_doc} RENAME copyright
            COMPONENT ${_comp} EXCLUDE_FROM_ALL)
        if(QW_GZIP)
            install(FILES ${_qw_pkgdir}/changelog.gz ${_qw_pkgdir}/changelog.Debian.gz
                DESTINATION ${_doc} COMPONENT ${_comp} EXCLUDE_FROM_ALL)
        endif()
    endforeach()
endif()

include(CPack)
cpack_add_component(runtime DISPLAY_NAME "Shared libraries")
cpack_add_component(development DISPLAY_NAME "Development files" DEPENDS runtime)
if("tools" IN_LIST _qw_components)
    cpack_add_component(tools DISPLAY_NAME "Programs" DEPENDS runtime)
endif()

# Installed into /usr, the programs find the libraries in the system's library folder; a run path
# there would only be noise (and Debian's checks flag it).
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND TARGET quelworks-cli)
    set_property(TARGET quelworks-cli PROPERTY INSTALL_RPATH "")
endif()
