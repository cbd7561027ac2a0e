# CMake package of libzfx: find_package(zfx) gives the imported targets zfx::zfx (the library,
# with its headers) and zfx::zfx_platform (the platform layer it links).
include("${CMAKE_CURRENT_LIST_DIR}/zfxTargets.cmake")
