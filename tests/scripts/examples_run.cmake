# Runs each example on the preloaded virtual camera and checks what it prints.
cmake_minimum_required(VERSION 3.16)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(node /dev/orvo-example0)
set(preload ${CMAKE_COMMAND} -E env --unset=DISPLAY LD_PRELOAD=${VCAM} ORVO_VCAM_DEVICE=${node}
            ORVO_VCAM_FPS=0)

# expect(<regex> <command...>): runs in WORK, fails unless it exits 0 and stdout matches.
function(expect regex)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK} RESULT_VARIABLE rc OUTPUT_VARIABLE out
                  ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "${regex}")
    string(REPLACE ";" " " cmd "${ARGN}")
    message(FATAL_ERROR "${cmd}\nexit ${rc}; expected /${regex}/ in:\n${out}\n${err}")
  endif()
  message(STATUS "ok: ${regex}")
endfunction()

expect("saved +${WORK}/calib/intrinsics.yml"
       ${ORVO} info --virtual --save-calibration ${WORK}/calib)
set(calib ${WORK}/calib/intrinsics.yml ${WORK}/calib/extrinsics.yml)
# The default scene's box stands 1.4 m ahead inside the examples' search box.
expect("frame 2: obstacle at x [-0-9.]+ y -[0-9.]+ z 1\\.[34]"
       ${preload} ${EXAMPLES}/nearest_obstacle ${node} ${calib} 3)
expect("frame 4: [67] samples, filter settling" ${preload} ${EXAMPLES}/attitude ${node} 5)
expect("no display: wrote grab.png" ${preload} ${EXAMPLES}/grab_and_show ${node} ${calib})
expect("pair 1504x480, stack 752x1440, left half 752x480" ${EXAMPLES}/helpers_tour ${calib})
# The cable pulled at the tenth dequeue and put back 300 ms later: the loop holds still meanwhile,
# tells each state change, and carries on (it exits 1 had it been handed an old frame).
expect("camera: disconnected\n.*camera: reconnecting\n.*camera: streaming\n.*cycle [0-9]+: frame [0-9]+ at .*reconnects 1,"
       ${preload} ORVO_VCAM_FAULTS=UNPLUG@10+300ms ${EXAMPLES}/robot_loop ${node} 60)
foreach(f nearest.png grab.png helpers_pair.png)
  if(NOT EXISTS ${WORK}/${f})
    message(FATAL_ERROR "${f} was not written")
  endif()
endforeach()
