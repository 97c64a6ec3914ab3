# Installs the headers, the library, a CMake package and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS ztProxyProtocol
    EXPORT ztProxyProtocolTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
)
# The header of a class that is not built stays out of the package.
set(ZT_HEADER_EXCLUDES "")
if(NOT ZT_WITH_IMAGE)
    list(APPEND ZT_HEADER_EXCLUDES PATTERN ztImageAssembler.h EXCLUDE)
endif()
if(NOT ZT_WITH_USB)
    list(APPEND ZT_HEADER_EXCLUDES PATTERN ztUsbProxyServer.h EXCLUDE)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${ZT_HEADER_EXCLUDES})
install(FILES ${PROJECT_BINARY_DIR}/include/ztProxyConfig.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(ZT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ztProxyProtocol)
install(EXPORT ztProxyProtocolTargets
    NAMESPACE ztProxyProtocol::
    DESTINATION ${ZT_CMAKE_DIR}
)
configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/ztProxyProtocolConfig.cmake.in
    ${PROJECT_BINARY_DIR}/ztProxyProtocolConfig.cmake
    INSTALL_DESTINATION ${ZT_CMAKE_DIR}
)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/ztProxyProtocolConfigVersion.cmake
    COMPATIBILITY SameMajorVersion
)
install(FILES
    ${PROJECT_BINARY_DIR}/ztProxyProtocolConfig.cmake
    ${PROJECT_BINARY_DIR}/ztProxyProtocolConfigVersion.cmake
    DESTINATION ${ZT_CMAKE_DIR}
)
if(ZT_WITH_IMAGE)
    # The package finds OpenCV core the way this build did.
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/FindOpenCVCore.cmake DESTINATION ${ZT_CMAKE_DIR})
endif()

# The pkg-config file finds the prefix from its own place, so that the package works
# wherever it is installed (cmake --install --prefix included).
file(RELATIVE_PATH ZT_PC_TO_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
string(REGEX REPLACE "/$" "" ZT_PC_TO_PREFIX "${ZT_PC_TO_PREFIX}")
# OpenCV core is named by its flags: Debian's libopencv-core-dev has no opencv4.pc to
# require.
set(ZT_PC_CFLAGS "")
set(ZT_PC_LIBS "")
if(ZT_WITH_IMAGE)
    get_filename_component(zt_opencv_dir "${OpenCVCore_LIBRARY}" DIRECTORY)
    get_filename_component(zt_opencv_name "${OpenCVCore_LIBRARY}" NAME_WE)
    string(REGEX REPLACE "^lib" "" zt_opencv_name "${zt_opencv_name}")
    set(ZT_PC_CFLAGS " -I${OpenCVCore_INCLUDE_DIR}")
    set(ZT_PC_LIBS " -L${zt_opencv_dir} -l${zt_opencv_name}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/ztProxyProtocol.pc.in ${PROJECT_BINARY_DIR}/ztProxyProtocol.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ztProxyProtocol.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
