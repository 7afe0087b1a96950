# The scene-file generator: writes a scene's calibration files, or the default scene under data/.
add_executable(make_scene_files ${CMAKE_CURRENT_SOURCE_DIR}/generators/make_scene_files.cpp)
target_link_libraries(make_scene_files PRIVATE Orvo_virtual_camera)
