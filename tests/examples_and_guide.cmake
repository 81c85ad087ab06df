# The examples are run as their reader would run them. The thread sanitizer's own thread must not meet
# the unwinder's signal, so with it they are built only.
function(test_example name text watch frame)
  if(TARGET ${name} AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize=thread")
    add_test(NAME example_${name} COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/examples_test.sh
      ${text} ${watch} ${frame} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}>)
    set_tests_properties(example_${name} PROPERTIES TIMEOUT 60)
  endif()
endfunction()

test_example(ten_lines "^flushing accounts.db hangs$" flush-db "(main")
test_example(callable "^flush-db hung and was cancelled$" flush-db "(.*pthread_cond_")
test_example(worker_pool "^upload .*  <--$" upload "(.*WorkerPool")
test_example(sqlite "^count-for-ever hung: interrupted$" count-for-ever "(sqlite3_exec")

# The guide explains every message.
add_test(NAME guide COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/guide_test.sh ${PROJECT_SOURCE_DIR})
