# Consumer checks: the SDK installed and found by find_package, used from its build tree, through
# pkg-config from a moved copy of the install, and pulled in with add_subdirectory.
if(ORVO_SANITIZE OR NOT ORVO_INSTALL)
  return()  # needs the install rules; an outside project would need the sanitizer flags too
endif()

set(ORVO_CONSUMER_WORK ${CMAKE_CURRENT_BINARY_DIR}/consumer)
foreach(step install find_package build_tree pkg_config add_subdirectory)
  add_test(NAME consumer_${step}
           COMMAND ${CMAKE_COMMAND} -DSTEP=${step} -DSDK_SOURCE=${PROJECT_SOURCE_DIR}
                   -DSDK_BINARY=${PROJECT_BINARY_DIR} -DWORK=${ORVO_CONSUMER_WORK}
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run.cmake)
  set_tests_properties(consumer_${step} PROPERTIES TIMEOUT 900 LABELS consumer)
endforeach()
set_tests_properties(consumer_install PROPERTIES FIXTURES_SETUP orvo_installed)
set_tests_properties(consumer_find_package consumer_pkg_config PROPERTIES FIXTURES_REQUIRED orvo_installed)
# add_subdirectory compiles the SDK a second time; keep it from competing with the other builds.
set_tests_properties(consumer_add_subdirectory PROPERTIES RUN_SERIAL ON)
