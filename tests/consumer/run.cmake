# cmake -P script: builds and runs an outside program against the installed Debian packages,
# once through the CMake package and once through pkg-config.
function(step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE code)
    if(NOT code EQUAL 0)
        string(REPLACE ";" " " command "${ARGN}")
        message(FATAL_ERROR "failed (${code}): ${command}")
    endif()
endfunction()

step(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK_DIR}/cmake-build --log-level=WARNING
     -DCMAKE_PREFIX_PATH=/usr -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF)
step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
step(${WORK_DIR}/cmake-build/consumer find_package)

# The .pc file lies in the multiarch directory, where a cross build's pkg-config looks, and names
# /usr in plain paths; the header and the library lie where compiler and loader look anyway.
execute_process(COMMAND pkg-config --path spf-sharedmemory OUTPUT_VARIABLE pcFile
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
file(READ "${pcFile}" pc)
if(NOT pcFile MATCHES "^/usr/lib/[^/]+-[^/]+/pkgconfig/" OR NOT pc MATCHES "^prefix=/usr\n"
   OR pc MATCHES "Libs.private|/\\.\\.|//")
    message(FATAL_ERROR "${pcFile} should lie in /usr/lib/<triplet>/pkgconfig and name /usr in "
                        "plain paths and no Libs.private:\n${pc}")
endif()
execute_process(COMMAND pkg-config --cflags --libs spf-sharedmemory COMMAND_ERROR_IS_FATAL ANY
                OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT flags STREQUAL "-lspf_sharedmemory")
    message(FATAL_ERROR "pkg-config --cflags --libs spf-sharedmemory printed <${flags}>")
endif()
step(c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror ${CMAKE_CURRENT_LIST_DIR}/main.cpp ${flags}
     -o ${WORK_DIR}/consumer-pkgconfig)
step(${WORK_DIR}/consumer-pkgconfig pkg-config)

# The packaged tool finds the packaged library on its own.
execute_process(COMMAND /usr/bin/spf-shm name seg grp OUTPUT_VARIABLE derived
                RESULT_VARIABLE code OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT code EQUAL 0 OR NOT derived STREQUAL "a758e1b41c007852")
    message(FATAL_ERROR "packaged spf-shm: exit ${code}, output <${derived}>")
endif()
