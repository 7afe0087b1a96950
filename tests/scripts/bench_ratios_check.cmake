# Feeds bench/ratios.awk one log per reporting style and compares the rows it gathers.
cmake_minimum_required(VERSION 3.16)
file(MAKE_DIRECTORY ${WORK})

function(check name log expected)
  file(WRITE ${WORK}/${name}.txt "${log}")
  execute_process(COMMAND ${AWK} -v prog=${name} -f ${PARSER} ${WORK}/${name}.txt
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  string(REPLACE "|" "\t" expected "${expected}")
  if(NOT rc EQUAL 0 OR NOT out STREQUAL expected)
    message(FATAL_ERROR "${name}: exit ${rc} ${err}\ngot:\n${out}\nexpected:\n${expected}")
  endif()
endfunction()

# Lines the program prints itself; the benchmark rows around them are not ratios.
check(own [=[
BM_Grab/min_time:2.000/real_time      1693 us   1639 us   1652 items_per_second=590.7/s
BM_LrGray        / BM_CvSplit     = 0.643  (1.56x faster)

Grab / required work: 1.016x (target <= 1.15x)
Frames per second, free-running end to end: 590 (target >= 500)
]=] [=[
own|BM_LrGray / BM_CvSplit|0.643  (1.56x faster)
own|Grab / required work|1.016x (target <= 1.15x)
own|Frames per second, free-running end to end|590 (target >= 500)
]=])

# Ratio counters, and a reference row (plain loop) paired with the operation of the same arguments.
check(counters [=[
BM_NearestPoint/1/0/iterations:60/real_time   52.7 ms   48.8 ms   60 base_ms=23.7 cpu_ratio=1.01531 ratio=1.01535
BM_PointCloud/0/real_time        200 us        197 us         3575
BM_PointCloud/1/real_time       1.5 ms        463 us         1558
BM_PlainLoop/0/real_time        1600 us       1409 us          340
BM_PlainLoop/1/real_time        6000 us       5688 us           84
]=] [=[
counters|BM_NearestPoint/1/0|1.01535, cpu 1.01531
counters|BM_PointCloud/0 / BM_PlainLoop/0|0.125
counters|BM_PointCloud/1 / BM_PlainLoop/1|0.250
]=])

# Nothing to pair: said so, so that the table shows every program.
check(none [=[
BM_Alone        1.40 ms         1.18 ms          634
]=] [=[
none|(no ratio reported)|
]=])
