# pkg-config files for the two libraries, installed with the development files. The prefix is
# found from the file's own place (${pcfiledir}), so an unpacked Windows zip or a copied tree works
# as well as the system's copy. quelworks.pc carries the release version, quelworks_c.pc the C
# interface version (the QW_VERSION_* macros), which is what a C program's compatibility hangs on.
set(_qw_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH QW_PC_TO_PREFIX /prefix/${_qw_pc_dir} /prefix)
string(REGEX REPLACE "/$" "" QW_PC_TO_PREFIX "${QW_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/quelworks.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/quelworks.pc @ONLY)
set(_qw_pc_files ${PROJECT_BINARY_DIR}/pkgconfig/quelworks.pc)
if(TARGET quelworks_c)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/quelworks_c.pc.in
        ${PROJECT_BINARY_DIR}/pkgconfig/quelworks_c.pc @ONLY)
    list(APPEND _qw_pc_files ${PROJECT_BINARY_DIR}/pkgconfig/quelworks_c.pc)
endif()
install(FILES ${_qw_pc_files} DESTINATION ${_qw_pc_dir} COMPONENT development)
