# The programs built beside the library, run as an operator would run them.
if(TARGET spf-shm)
    add_test(NAME tool_end_to_end COMMAND ${CMAKE_CURRENT_LIST_DIR}/tool_test.sh $<TARGET_FILE:spf-shm>)
    set_tests_properties(tool_end_to_end PROPERTIES
                         FIXTURES_REQUIRED spf_suite SKIP_RETURN_CODE 77 TIMEOUT 120)
endif()
if(TARGET spf-ring-demo)
    add_test(NAME ring_demo_posix COMMAND spf-ring-demo 200)
    add_test(NAME ring_demo_sysv COMMAND spf-ring-demo --sysv 200)
    set_tests_properties(ring_demo_posix ring_demo_sysv PROPERTIES
                         FIXTURES_REQUIRED spf_suite TIMEOUT 120)
endif()
if(TARGET spf-log-example)
    add_test(NAME log_example COMMAND spf-log-example)
    set_tests_properties(log_example PROPERTIES FIXTURES_REQUIRED spf_suite TIMEOUT 60)
endif()
