# pkg-config files for the two libraries, installed with the development files. Outside /usr the
# prefix is found from the file's own place (${pcfiledir}), so an unpacked Windows zip or a copied
# tree works. quelworks.pc carries the release version, quelworks_c.pc the C interface version
# (the QW_VERSION_* macros), which is what a C program's compatibility hangs on.
set(_qw_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    # The system's copy (the Debian packages): plain paths, which pkg-config then leaves out of
    # the flags as the compiler's own.
    set(QW_PC_PREFIX /usr)
else()
    file(RELATIVE_PATH _qw_up /prefix/${_qw_pc_dir} /prefix)
    string(REGEX REPLACE "/$" "" _qw_up "${_qw_up}")
    set(QW_PC_PREFIX "\${pcfiledir}/${_qw_up}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/quelworks.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/quelworks.pc @ONLY)
set(_qw_pc_files ${PROJECT_BINARY_DIR}/pkgconfig/quelworks.pc)
if(TARGET quelworks_c)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/quelworks_c.pc.in
        ${PROJECT_BINARY_DIR}/pkgconfig/quelworks_c.pc @ONLY)
    list(APPEND _qw_pc_files ${PROJECT_BINARY_DIR}/pkgconfig/quelworks_c.pc)
endif()
install(FILES ${_qw_pc_files} DESTINATION ${_qw_pc_dir} COMPONENT development)
