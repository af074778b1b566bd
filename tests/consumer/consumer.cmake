# Installs the build into a fresh prefix, then builds and runs an outside program against it:
# once through the CMake package, once through pkg-config. The compiler and its flags are
# passed on, so that under the sanitizers the program carries the same runtime as the library.
add_test(NAME consumer_of_the_installed_package
         COMMAND ${CMAKE_COMMAND}
                 -DBUILD_DIR=${PROJECT_BINARY_DIR}
                 -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/consumer
                 -DSOURCE_DIR=${CMAKE_CURRENT_LIST_DIR}
                 -DCXX=${CMAKE_CXX_COMPILER}
                 "-DCXX_FLAGS=${CMAKE_CXX_FLAGS}"
                 "-DLINKER_FLAGS=${CMAKE_EXE_LINKER_FLAGS}"
                 -P ${CMAKE_CURRENT_LIST_DIR}/run.cmake)
set_tests_properties(consumer_of_the_installed_package PROPERTIES
                     FIXTURES_REQUIRED spf_suite TIMEOUT 600)
