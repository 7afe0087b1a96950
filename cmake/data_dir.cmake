# Where the SDK's data folder is installed and how a library finds it again at run time.
include(GNUInstallDirs)

get_filename_component(ORVO_DATA_SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR}/../data ABSOLUTE)
set(ORVO_DATA_INSTALL_DIR ${CMAKE_INSTALL_DATADIR}/orvo)

# The way from the installed libraries' folder to the installed data folder ("../share/orvo"):
# relative, so that the prefix can be moved after installation.
file(RELATIVE_PATH ORVO_DATA_FROM_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR}
     ${CMAKE_INSTALL_PREFIX}/${ORVO_DATA_INSTALL_DIR})

# Gives `target` the compile definition ORVO_DATA_FROM_LIBDIR and puts a copy of data/ at that
# place relative to the target's own file in the build tree, so that the built library finds its
# data the way the installed one does and no build or source path is compiled in.
function(orvo_locate_data target)
  target_compile_definitions(${target} PRIVATE ORVO_DATA_FROM_LIBDIR="${ORVO_DATA_FROM_LIBDIR}")
  if(NOT EXISTS ${ORVO_DATA_SOURCE_DIR})
    return()
  endif()
  set(output_dir ${CMAKE_CURRENT_BINARY_DIR})  # where the target's file is built
  if(CMAKE_LIBRARY_OUTPUT_DIRECTORY)
    set(output_dir ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
  endif()
  get_filename_component(staged ${output_dir}/${ORVO_DATA_FROM_LIBDIR} ABSOLUTE)
  string(FIND "${staged}/" "${PROJECT_BINARY_DIR}/" inside)
  if(NOT inside EQUAL 0)
    message(WARNING "${target}: the build tree's copy of data/ would land outside the build tree "
                    "(${staged}); it is not made. Set ORVO_DATA_DIR=${ORVO_DATA_SOURCE_DIR} to run "
                    "from the build tree.")
    return()
  endif()
  file(GLOB_RECURSE data_files CONFIGURE_DEPENDS ${ORVO_DATA_SOURCE_DIR}/*)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${target}_data.stamp)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -E copy_directory ${ORVO_DATA_SOURCE_DIR} ${staged}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${data_files}
    COMMENT "Staging data/ beside ${target}")
  add_custom_target(${target}_data DEPENDS ${stamp})
  add_dependencies(${target} ${target}_data)
endfunction()
