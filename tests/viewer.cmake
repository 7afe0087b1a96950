# orvo view's tests: hostile traffic on loopback, and the page in the system chromium. Both run the
# built orvo; they report "skipped" (77) when node or chromium is not installed.
if(TARGET orvo)
  set(viewer_run ${PROJECT_SOURCE_DIR}/tools/viewer/test/run.sh)
  foreach(kind burst browser)
    add_test(NAME viewer_${kind}
             COMMAND ${viewer_run} ${kind} $<TARGET_FILE:orvo> ${PROJECT_BINARY_DIR}/viewer-test/${kind}
                     ${PROJECT_SOURCE_DIR}/data)
    # Each starts its own server on a free port; the browser test wants the cores to itself.
    set_tests_properties(viewer_${kind} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 400 RUN_SERIAL ON)
  endforeach()
endif()
