# The tool suites need the tools' shared code, and the programs they run built first.
if(TARGET test_tool_units AND TARGET orvo_tool_common)
  target_link_libraries(test_tool_units PRIVATE orvo_tool_common)
endif()
if(TARGET test_tool AND TARGET orvo AND TARGET orvo_demo)
  add_dependencies(test_tool orvo orvo_demo)
  target_compile_definitions(test_tool PRIVATE
    ORVO_TOOL_PATH="$<TARGET_FILE:orvo>" ORVO_DEMO_PATH="$<TARGET_FILE:orvo_demo>")
endif()
