# What the tests of the C++ headers need beside their sources.

# Shared objects that keep callables, in both ways to export symbols.
foreach(kind hidden default interposed)
  set(plugin watch_plugin_${kind})
  string(REPLACE interposed default visibility ${kind})
  add_library(${plugin} MODULE fixtures/watch_plugin.cpp)
  target_include_directories(${plugin} PRIVATE ${PROJECT_SOURCE_DIR}/include)
  target_compile_options(${plugin} PRIVATE -fno-exceptions -fno-rtti)
  target_link_libraries(${plugin} PRIVATE quorvel_warnings)
  set_target_properties(${plugin} PROPERTIES CXX_VISIBILITY_PRESET ${visibility}
    VISIBILITY_INLINES_HIDDEN OFF)
  string(TOUPPER ${plugin} definition)
  target_compile_definitions(unit_tests PRIVATE ${definition}="$<TARGET_FILE:${plugin}>")
  add_dependencies(unit_tests ${plugin})
endforeach()
target_link_options(unit_tests PRIVATE LINKER:--export-dynamic-symbol=__quorvel_start_ex
  LINKER:--export-dynamic-symbol=quorvel_update,--export-dynamic-symbol=quorvel_end)

add_test(NAME watch_hpp_discarded COMMAND ${CMAKE_CXX_COMPILER} -std=c++17 -fsyntax-only
  -I${PROJECT_SOURCE_DIR}/include ${CMAKE_CURRENT_SOURCE_DIR}/fixtures/discarded_watch.cpp)
set_tests_properties(watch_hpp_discarded PROPERTIES
  PASS_REGULAR_EXPRESSION "cpp:7:.*-Wunused-(result|value).*cpp:8:.*-Wunused-(result|value)")
