# Finds the core module of OpenCV (cv::Mat) and defines the imported target
# OpenCVCore::OpenCVCore, with OpenCVCore_INCLUDE_DIR and OpenCVCore_LIBRARY.
#
# Only the headers and the library are looked for: Debian's libopencv-core-dev ships
# neither OpenCV's CMake package nor its pkg-config file, which come only with the package
# of every OpenCV module. An OpenCV installed elsewhere is found through CMAKE_PREFIX_PATH.
find_path(OpenCVCore_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
find_library(OpenCVCore_LIBRARY opencv_core)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVCore REQUIRED_VARS OpenCVCore_LIBRARY OpenCVCore_INCLUDE_DIR)
mark_as_advanced(OpenCVCore_INCLUDE_DIR OpenCVCore_LIBRARY)

if(OpenCVCore_FOUND AND NOT TARGET OpenCVCore::OpenCVCore)
    add_library(OpenCVCore::OpenCVCore UNKNOWN IMPORTED)
    set_target_properties(OpenCVCore::OpenCVCore PROPERTIES
        IMPORTED_LOCATION "${OpenCVCore_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCVCore_INCLUDE_DIR}"
    )
endif()
