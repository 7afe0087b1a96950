# The virtual camera's sources and its private include folder, in one place for its own CMake file
# and for projects that compile it themselves (the fuzz targets).
get_filename_component(ORVO_VCAM_PUBLIC_INCLUDE_DIR ${CMAKE_CURRENT_LIST_DIR}/../include ABSOLUTE)
set(ORVO_VCAM_PRIVATE_INCLUDE_DIR ${CMAKE_CURRENT_LIST_DIR}/interposer)
file(GLOB ORVO_VCAM_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp
     ${CMAKE_CURRENT_LIST_DIR}/interposer/*.cpp)
