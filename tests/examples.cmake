# The examples run as a user would run them before the camera arrives: the virtual camera
# preloaded, its rig's calibration saved by the tool.
if(NOT TARGET orvo OR NOT TARGET example_helpers_tour)
  return()
endif()
add_test(NAME examples_on_virtual_camera
         COMMAND ${CMAKE_COMMAND} -DORVO=$<TARGET_FILE:orvo>
                 -DVCAM=${ORVO_PRELOAD_PREFIX}$<TARGET_FILE:Orvo_virtual_camera>
                 -DEXAMPLES=$<TARGET_FILE_DIR:example_helpers_tour>
                 -DWORK=${CMAKE_CURRENT_BINARY_DIR}/examples_run
                 -P ${CMAKE_CURRENT_SOURCE_DIR}/scripts/examples_run.cmake)
set_tests_properties(examples_on_virtual_camera PROPERTIES TIMEOUT 300 LABELS examples)
