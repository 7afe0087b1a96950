# Install rules and package files: headers, libraries, tools, data, CMake config and pkg-config.
include(CMakePackageConfigHelpers)

set(ORVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Orvo_Stereo_SDK)

set_target_properties(Orvo_Stereo_SDK PROPERTIES EXPORT_NAME Stereo_SDK)
set_target_properties(Orvo_virtual_camera PROPERTIES EXPORT_NAME virtual_camera)

install(TARGETS Orvo_Stereo_SDK Orvo_virtual_camera
  EXPORT Orvo_Stereo_SDKTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

install(FILES ${PROJECT_SOURCE_DIR}/include/OrvoCamera.h ${PROJECT_SOURCE_DIR}/include/StereoCamera.h
              ${PROJECT_SOURCE_DIR}/include/video_device.h ${PROJECT_SOURCE_DIR}/include/ZUNCVHelper.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvo COMPONENT development)
# The virtual camera's public headers only; its interposer's stay in the source tree.
# The modern API's headers, included as <orvo/camera.hpp> and so on.
file(GLOB ORVO_MODERN_HEADERS ${PROJECT_SOURCE_DIR}/include/orvo/*.hpp)
install(FILES ${ORVO_MODERN_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvo COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/orvo/vcam/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvo/vcam
        COMPONENT development FILES_MATCHING PATTERN "*.hpp")

# The programs people run: whichever of them this build defines.
foreach(tool orvo orvo_demo)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    # Installed programs find the SDK next to them, wherever the tree is moved.
    file(RELATIVE_PATH _orvo_bin_to_lib ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}
         ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(${tool} PROPERTIES INSTALL_RPATH "$ORIGIN/${_orvo_bin_to_lib}")
  endif()
endforeach()

if(EXISTS ${ORVO_DATA_SOURCE_DIR})
  install(DIRECTORY ${ORVO_DATA_SOURCE_DIR}/ DESTINATION ${ORVO_DATA_INSTALL_DIR} COMPONENT runtime)
endif()

# ---- find_package(Orvo_Stereo_SDK): installed tree and build tree ----------
install(EXPORT Orvo_Stereo_SDKTargets NAMESPACE Orvo:: DESTINATION ${ORVO_CMAKE_DIR}
        COMPONENT development)
export(EXPORT Orvo_Stereo_SDKTargets NAMESPACE Orvo::
       FILE ${PROJECT_BINARY_DIR}/Orvo_Stereo_SDKTargets.cmake)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/Orvo_Stereo_SDKConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/Orvo_Stereo_SDKConfig.cmake
  INSTALL_DESTINATION ${ORVO_CMAKE_DIR})
# The build tree's config sits beside its targets file; it needs no relocation prefix.
configure_file(${CMAKE_CURRENT_LIST_DIR}/Orvo_Stereo_SDKConfig.cmake.in
               ${PROJECT_BINARY_DIR}/Orvo_Stereo_SDKConfig.cmake @ONLY)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/Orvo_Stereo_SDKConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/Orvo_Stereo_SDKConfig.cmake
              ${PROJECT_BINARY_DIR}/Orvo_Stereo_SDKConfigVersion.cmake
        DESTINATION ${ORVO_CMAKE_DIR} COMPONENT development)

# ---- pkg-config: every path relative to the .pc file's own place -----------
set(ORVO_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH ORVO_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${ORVO_PC_DIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ORVO_PC_TO_PREFIX "${ORVO_PC_TO_PREFIX}")
foreach(dir LIBDIR INCLUDEDIR DATADIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    file(RELATIVE_PATH ORVO_PC_${dir} ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_${dir}})
  else()
    set(ORVO_PC_${dir} ${CMAKE_INSTALL_${dir}})
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/orvo-stereo-sdk.pc.in ${PROJECT_BINARY_DIR}/orvo-stereo-sdk.pc @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/orvo-virtual-camera.pc.in
               ${PROJECT_BINARY_DIR}/orvo-virtual-camera.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvo-stereo-sdk.pc ${PROJECT_BINARY_DIR}/orvo-virtual-camera.pc
        DESTINATION ${ORVO_PC_DIR} COMPONENT development)
