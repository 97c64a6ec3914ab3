# Finds the core module of OpenCV (cv::Mat) and defines the imported target
# OpenCVCore::OpenCVCore, with OpenCVCore_INCLUDE_DIR and OpenCVCore_LIBRARY.
#
# Only the headers and the library are looked for: Debian's libopencv-core-dev ships
# neither OpenCV's CMake package nor its pkg-config file, which come only with the package
# of every OpenCV module. An OpenCV installed elsewhere is found through CMAKE_PREFIX_PATH.
#
# A Windows build takes OpenCV core from ZT_WINDOWS_OPENCV, where ./run installs it as a DLL
# built with mingw-w64.
if(OpenCVCore_LIBRARY AND NOT EXISTS "${OpenCVCore_LIBRARY}")
    unset(OpenCVCore_LIBRARY CACHE)
endif()
if(WIN32 AND ZT_WINDOWS_OPENCV)
    set(_zt_where NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
    find_path(OpenCVCore_INCLUDE_DIR opencv2/core.hpp PATHS ${ZT_WINDOWS_OPENCV}/include/opencv4 ${_zt_where})
    find_library(OpenCVCore_LIBRARY NAMES opencv_core460 opencv_core PATHS ${ZT_WINDOWS_OPENCV}/lib ${_zt_where})
    find_file(OpenCVCore_DLL NAMES libopencv_core460.dll PATHS ${ZT_WINDOWS_OPENCV}/bin ${_zt_where})
    set(_zt_dll OpenCVCore_DLL)
else()
    find_path(OpenCVCore_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
    find_library(OpenCVCore_LIBRARY opencv_core)
    set(_zt_dll)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVCore REQUIRED_VARS OpenCVCore_LIBRARY OpenCVCore_INCLUDE_DIR ${_zt_dll})
mark_as_advanced(OpenCVCore_INCLUDE_DIR OpenCVCore_LIBRARY OpenCVCore_DLL)

if(OpenCVCore_FOUND AND NOT TARGET OpenCVCore::OpenCVCore AND OpenCVCore_DLL)
    add_library(OpenCVCore::OpenCVCore SHARED IMPORTED)
    set_target_properties(OpenCVCore::OpenCVCore PROPERTIES
        IMPORTED_LOCATION "${OpenCVCore_DLL}"
        IMPORTED_IMPLIB "${OpenCVCore_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCVCore_INCLUDE_DIR}"
    )
elseif(OpenCVCore_FOUND AND NOT TARGET OpenCVCore::OpenCVCore)
    add_library(OpenCVCore::OpenCVCore UNKNOWN IMPORTED)
    set_target_properties(OpenCVCore::OpenCVCore PROPERTIES
        IMPORTED_LOCATION "${OpenCVCore_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCVCore_INCLUDE_DIR}"
    )
endif()
