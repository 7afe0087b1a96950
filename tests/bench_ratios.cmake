# The benchmark table's parser on logs of each reporting style.
find_program(ORVO_AWK awk)
if(ORVO_AWK)
  add_test(NAME bench_ratio_parser
           COMMAND ${CMAKE_COMMAND} -DAWK=${ORVO_AWK} -DPARSER=${PROJECT_SOURCE_DIR}/bench/ratios.awk
                   -DWORK=${CMAKE_CURRENT_BINARY_DIR}/bench_ratio_parser
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/scripts/bench_ratios_check.cmake)
endif()
