# What a release needs beyond the build: version resources in the Windows files, pkg-config files,
# the API reference (target docs) and the packages (cpack: Debian packages, or a zip for Windows).
# Included at the end of the top-level CMakeLists.txt, once every installed target exists.
include(QwCInterfaceVersion)
if(WIN32)
    enable_language(RC)
endif()
include(QwVersionResource)
qw_version_resource(quelworks "quelworks C++ library")
qw_version_resource(quelworks_c "quelworks C interface" FILE_VERSION ${QW_C_VERSION})
qw_version_resource(quelworks-cli "quelworks command")
qw_version_resource(quelworks-devsim "quelworks simulated device")

include(QwPkgConfig)
# The docs target and cpack's configuration only when quelworks is the project being built, not
# when another project includes it with add_subdirectory.
if(PROJECT_IS_TOP_LEVEL)
    include(QwDocs)
    include(QwPackaging)
endif()

if(QUELWORKS_BUILD_TESTS)
    add_subdirectory(tests/release)
endif()
