# The orvo Python package's pytest suite, against the preloaded virtual camera. pytest's own exit
# code is the verdict: 5 ("no tests collected") fails the test like any other non-zero code.
if(NOT TARGET orvo_python)
  return()
endif()
add_test(NAME python_orvo
         COMMAND ${Python3_EXECUTABLE} -m pytest ${PROJECT_SOURCE_DIR}/python/tests -q
                 -p no:cacheprovider
         WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
set_tests_properties(python_orvo PROPERTIES
  ENVIRONMENT "PYTHONPATH=$<TARGET_FILE_DIR:orvo_python>/..;LD_PRELOAD=${ORVO_PRELOAD_PREFIX}$<TARGET_FILE:Orvo_virtual_camera>;ORVO_VCAM_DEVICE=/dev/video-virtual0;PYTHONDONTWRITEBYTECODE=1"
  TIMEOUT 300 LABELS python)
