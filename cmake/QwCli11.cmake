# Finds CLI11 (header-only, Debian's libcli11-dev). A cross build cannot search the host's
# /usr/include as a whole (its C library headers would shadow the target's), so it gets a folder
# that holds only a link to the host's CLI11 headers.
find_package(CLI11 CONFIG QUIET)
if(NOT CLI11_FOUND AND CMAKE_CROSSCOMPILING AND EXISTS /usr/include/CLI/CLI.hpp)
    set(_qw_cli11_dir ${CMAKE_BINARY_DIR}/cli11-include)
    file(MAKE_DIRECTORY ${_qw_cli11_dir})
    file(CREATE_LINK /usr/include/CLI ${_qw_cli11_dir}/CLI SYMBOLIC)
    add_library(CLI11::CLI11 INTERFACE IMPORTED)
    target_include_directories(CLI11::CLI11 INTERFACE ${_qw_cli11_dir})
    set(CLI11_FOUND TRUE)
endif()
