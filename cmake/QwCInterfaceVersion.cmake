# The version of the C interface (quelworks_c) is kept in one place, the QW_VERSION_* macros of
# include/quelworks/quelworks_c.h, which programs compile against. This reads it from there so that
# the shared library's file name (libquelworks_c.so.MAJOR, VERSION) and the DLL's version resource
# cannot drift from the header, and checks that the header's string agrees with its numbers.
#
# Sets QW_C_VERSION ("major.minor.patch") and QW_C_VERSION_MAJOR/MINOR/PATCH.
file(STRINGS ${PROJECT_SOURCE_DIR}/include/quelworks/quelworks_c.h _qw_c_version_lines
    REGEX "^#define QW_VERSION_(MAJOR|MINOR|PATCH|STRING) ")
foreach(_part MAJOR MINOR PATCH)
    set(QW_C_VERSION_${_part} "")
    foreach(_line IN LISTS _qw_c_version_lines)
        if(_line MATCHES "^#define QW_VERSION_${_part} ([0-9]+)$")
            set(QW_C_VERSION_${_part} ${CMAKE_MATCH_1})
        endif()
    endforeach()
    if(QW_C_VERSION_${_part} STREQUAL "")
        message(FATAL_ERROR "quelworks_c.h: no numeric QW_VERSION_${_part}")
    endif()
endforeach()
set(QW_C_VERSION "${QW_C_VERSION_MAJOR}.${QW_C_VERSION_MINOR}.${QW_C_VERSION_PATCH}")
set(_qw_c_version_string "")
foreach(_line IN LISTS _qw_c_version_lines)
    if(_line MATCHES "^#define QW_VERSION_STRING \"([^\"]*)\"$")
        set(_qw_c_version_string ${CMAKE_MATCH_1})
    endif()
endforeach()
if(NOT _qw_c_version_string STREQUAL QW_C_VERSION)
    message(FATAL_ERROR "quelworks_c.h: QW_VERSION_STRING \"${_qw_c_version_string}\" does not match "
        "QW_VERSION_MAJOR/MINOR/PATCH (${QW_C_VERSION})")
endif()
# The ELF export version node names the major version too (QUELWORKS_C_<major>).
file(STRINGS ${PROJECT_SOURCE_DIR}/src/capi/quelworks_c.map _qw_c_map_nodes REGEX "^QUELWORKS_C_[0-9]+ ")
if(NOT _qw_c_map_nodes MATCHES "^QUELWORKS_C_${QW_C_VERSION_MAJOR} ")
    message(FATAL_ERROR "src/capi/quelworks_c.map: the version node is not QUELWORKS_C_${QW_C_VERSION_MAJOR} "
        "(the major version of quelworks_c.h)")
endif()
