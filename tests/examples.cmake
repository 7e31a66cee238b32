# The example programs (examples/<name>/), each run as a user would run it,
# under Wine through scripts/wine-exec (see run_example.sh).
if(TARGET example_iocp_echo_server)
  set(run_example bash ${CMAKE_CURRENT_SOURCE_DIR}/run_example.sh ${CMAKE_SOURCE_DIR}/scripts/wine-exec)
  set(iocp_pair pair $<TARGET_FILE:example_iocp_echo_server> $<TARGET_FILE:example_iocp_echo_client>)
  add_test(NAME example_iocp_echo COMMAND ${run_example} ${iocp_pair})
  add_test(NAME example_iocp_echo_tls COMMAND ${run_example} ${iocp_pair} --tls)
  add_test(NAME example_wicomm_echo COMMAND ${run_example} single $<TARGET_FILE:example_wicomm_echo>)
  add_test(NAME example_wicomm_echo_tls COMMAND ${run_example} single $<TARGET_FILE:example_wicomm_echo> --tls)
  add_test(NAME example_receive_timeouts COMMAND ${run_example} single $<TARGET_FILE:example_receive_timeouts>)
  add_test(NAME example_write_overflow COMMAND ${run_example} single $<TARGET_FILE:example_write_overflow>)
  # The debug-output printer, on a test program that writes a Chinese text.
  add_test(NAME example_debug_output
    COMMAND bash -c "\"$0\" \"$1\" \"$2\" --gtest_filter=DebugTrace.* 2>&1 | grep -F '[debug] 连接失败（10061）：拒绝'"
            ${CMAKE_SOURCE_DIR}/scripts/wine-exec $<TARGET_FILE:example_debug_output> $<TARGET_FILE:test_module>)
  set_tests_properties(example_iocp_echo example_iocp_echo_tls example_wicomm_echo example_wicomm_echo_tls
    example_receive_timeouts example_write_overflow example_debug_output PROPERTIES TIMEOUT 60)
endif()
