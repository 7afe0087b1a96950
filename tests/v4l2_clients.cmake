# Everyday V4L2 clients (v4l2-compliance, v4l2-ctl, GStreamer, ffmpeg) on the virtual camera
# through 'orvo vcam'; each skips when its client is not installed. Under the sanitizers the
# clients get the sanitizer runtime preloaded ahead of the virtual camera, and their own leaks
# are not reported (they are not ours; the suites that link the camera check its leaks).
if(TARGET orvo)
  set(client_env "")
  if(ORVO_PRELOAD_PREFIX)
    string(REGEX REPLACE ":$" "" runtime "${ORVO_PRELOAD_PREFIX}")
    set(client_env "LD_PRELOAD=${runtime};ASAN_OPTIONS=detect_leaks=0:halt_on_error=1")
  endif()
  foreach(client compliance v4l2-ctl gstreamer ffmpeg launcher)
    set(name V4l2Clients.${client})
    add_test(NAME ${name}
             COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/scripts/v4l2_clients.sh $<TARGET_FILE:orvo>
                     ${CMAKE_CURRENT_BINARY_DIR}/v4l2_clients/${client} ${client})
    set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600)
    if(client_env)
      set_tests_properties(${name} PROPERTIES ENVIRONMENT "${client_env}")
    endif()
  endforeach()
endif()
