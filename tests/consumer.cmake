# Consumer checks: the SDK installed and found by find_package, used from its build tree, installed
# and moved elsewhere (the tool and find_package and pkg-config consumers from the moved tree), and
# pulled in with add_subdirectory.
if(ORVO_SANITIZE OR NOT ORVO_INSTALL)
  return()  # needs the install rules; an outside project would need the sanitizer flags too
endif()

set(ORVO_CONSUMER_WORK ${CMAKE_CURRENT_BINARY_DIR}/consumer)
set(ORVO_CONSUMER_TOOL "")
if(TARGET orvo)
  set(ORVO_CONSUMER_TOOL $<TARGET_FILE:orvo>)
endif()
foreach(step install find_package build_tree relocated add_subdirectory)
  add_test(NAME consumer_${step}
           COMMAND ${CMAKE_COMMAND} -DSTEP=${step} -DSDK_SOURCE=${PROJECT_SOURCE_DIR}
                   -DSDK_BINARY=${PROJECT_BINARY_DIR} -DWORK=${ORVO_CONSUMER_WORK}
                   -DTOOL=${ORVO_CONSUMER_TOOL}
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run.cmake)
  set_tests_properties(consumer_${step} PROPERTIES TIMEOUT 900 LABELS consumer)
endforeach()
set_tests_properties(consumer_install PROPERTIES FIXTURES_SETUP orvo_installed)
set_tests_properties(consumer_find_package PROPERTIES FIXTURES_REQUIRED orvo_installed)
# add_subdirectory compiles the SDK a second time; keep it from competing with the other builds.
set_tests_properties(consumer_add_subdirectory PROPERTIES RUN_SERIAL ON)
