# The virtual camera preloaded into a program that does not link it. (Under the sanitizers the
# sanitizer runtime comes first in LD_PRELOAD: ORVO_PRELOAD_PREFIX.)
add_executable(vcam_preload_probe ${CMAKE_CURRENT_SOURCE_DIR}/vcam_preload_probe.cpp)
add_test(NAME VcamPreload.AProgramThatDoesNotLinkItSeesTheNode COMMAND vcam_preload_probe)
set_tests_properties(VcamPreload.AProgramThatDoesNotLinkItSeesTheNode PROPERTIES
  ENVIRONMENT "LD_PRELOAD=${ORVO_PRELOAD_PREFIX}$<TARGET_FILE:Orvo_virtual_camera>;ORVO_VCAM_DEVICE=/dev/video-preload0;ORVO_VCAM_FPS=0"
  PASS_REGULAR_EXPRESSION "preloaded virtual camera: 5 frames"
  TIMEOUT 60)
add_dependencies(vcam_preload_probe Orvo_virtual_camera)
