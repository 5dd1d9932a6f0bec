# Compiler settings shared by every target of the project.
include(GNUInstallDirs)

# Warnings for the project's own code.
function(qw_warnings target)
    if(MSVC)
        target_compile_options(${target} PRIVATE /W4)
        if(QUELWORKS_WERROR)
            target_compile_options(${target} PRIVATE /WX)
        endif()
    else()
        target_compile_options(${target} PRIVATE -Wall -Wextra)
        if(QUELWORKS_WERROR)
            target_compile_options(${target} PRIVATE -Werror)
        endif()
    endif()
endfunction()

# Floating point must give the same bits with every compiler and optimisation level: no
# contraction of a*b+c into a fused multiply-add, no fast-math. x86-64 evaluates float in float
# (SSE), never in x87 extended precision.
function(qw_strict_float target)
    if(NOT MSVC)
        target_compile_options(${target} PRIVATE -ffp-contract=off -fno-fast-math)
    endif()
endfunction()

# Settings for the object libraries that make up the shared library.
function(qw_library_object_settings target)
    set_target_properties(${target} PROPERTIES
        POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden
        # Inline member functions hidden too: otherwise the standard library's helpers that the
        # compiler emits out of line for internal types (std::_Destroy_aux<...>::__destroy over a
        # vector's element type) keep namespace std's default visibility and are exported.
        VISIBILITY_INLINES_HIDDEN ON)
    target_compile_definitions(${target} PRIVATE QUELWORKS_BUILDING)
    target_include_directories(${target}
        PUBLIC ${PROJECT_SOURCE_DIR}/include
        PRIVATE ${PROJECT_SOURCE_DIR}/src)
    target_compile_features(${target} PUBLIC cxx_std_17)
    qw_warnings(${target})
    qw_strict_float(${target})
endfunction()

# Sanitizers apply to everything built in this tree (library, tests, tools).
macro(qw_apply_sanitizers)
    if(QUELWORKS_SANITIZE)
        string(REPLACE "," ";" _qw_sans "${QUELWORKS_SANITIZE}")
        foreach(_san IN LISTS _qw_sans)
            add_compile_options(-fsanitize=${_san})
            add_link_options(-fsanitize=${_san})
        endforeach()
        add_compile_options(-fno-omit-frame-pointer -fno-sanitize-recover=all)
    endif()
endmacro()
