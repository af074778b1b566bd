# cmake -P script behind the consumer test; see consumer.cmake.
function(step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE code)
    if(NOT code EQUAL 0)
        string(REPLACE ";" " " command "${ARGN}")
        message(FATAL_ERROR "failed (${code}): ${command}")
    endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
# The install needs the whole build: build everything (not only the tests) before ctest.
step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

step(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build
     -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
     "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
step(${WORK_DIR}/cmake-build/consumer find_package)

# The .pc file records the prefix the build was configured for; point it at this one.
file(GLOB_RECURSE pcFile ${prefix}/*/spf-sharedmemory.pc)
if(NOT pcFile)
    message(FATAL_ERROR "spf-sharedmemory.pc was not installed under ${prefix}")
endif()
get_filename_component(pcDir ${pcFile} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcDir})
foreach(query "--cflags;--libs" "--variable=libdir")
    execute_process(COMMAND pkg-config --define-variable=prefix=${prefix} ${query} spf-sharedmemory
                    OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE code)
    if(NOT code EQUAL 0)
        message(FATAL_ERROR "pkg-config ${query} spf-sharedmemory failed (${code})")
    endif()
    list(APPEND answers "${answer}")
endforeach()
list(GET answers 0 pkgFlags)
list(GET answers 1 libDir)
separate_arguments(pkgFlags UNIX_COMMAND "${pkgFlags}")
separate_arguments(cxxFlags UNIX_COMMAND "${CXX_FLAGS}")
separate_arguments(linkerFlags UNIX_COMMAND "${LINKER_FLAGS}")
step(${CXX} -std=c++17 -Wall -Wextra -Wpedantic -Werror ${cxxFlags} ${SOURCE_DIR}/main.cpp
     ${pkgFlags} ${linkerFlags} -Wl,-rpath,${libDir} -o ${WORK_DIR}/consumer-pkgconfig)
step(${WORK_DIR}/consumer-pkgconfig pkg-config)

# The installed tool finds the installed library on its own.
if(EXISTS ${prefix}/bin/spf-shm)
    execute_process(COMMAND ${prefix}/bin/spf-shm name seg grp OUTPUT_VARIABLE derived
                    RESULT_VARIABLE code OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT code EQUAL 0 OR NOT derived STREQUAL "a758e1b41c007852")
        message(FATAL_ERROR "installed spf-shm: exit ${code}, output <${derived}>")
    endif()
endif()
