# Everyday V4L2 clients (v4l2-compliance, v4l2-ctl, GStreamer, ffmpeg) on the virtual camera
# through 'orvo vcam'; each skips when its client is not installed.
if(TARGET orvo)
  foreach(client compliance v4l2-ctl gstreamer ffmpeg launcher)
    set(name V4l2Clients.${client})
    add_test(NAME ${name}
             COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/scripts/v4l2_clients.sh $<TARGET_FILE:orvo>
                     ${CMAKE_CURRENT_BINARY_DIR}/v4l2_clients/${client} ${client})
    set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600)
  endforeach()
endif()
