# Installs the build tree into a scratch prefix, then builds the client in
# client/ against it twice (CMake package, pkg-config), runs both and checks
# what they log and print.
#
# Variables: BUILD_DIR, CLIENT_DIR, WORK_DIR, LIBDIR, GENERATOR, CXX,
# PKG_CONFIG, SANITIZE (may be empty).

foreach(var BUILD_DIR CLIENT_DIR WORK_DIR LIBDIR GENERATOR CXX PKG_CONFIG)
    if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
        message(FATAL_ERROR "install test: ${var} is not set")
    endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
set(libdir ${prefix}/${LIBDIR})
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# A sanitized library needs a sanitized client.
set(client_flags "")
if(SANITIZE)
    set(client_flags "-fsanitize=${SANITIZE}")
endif()

function(run what)
    execute_process(COMMAND ${ARGN}
        RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "install test: ${what} failed (${result})\n${out}\n${err}")
    endif()
endfunction()

function(check_client what executable)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env MARLO_PROPERTIES= MARLO_SYSROOT= ${executable}
        RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "install test: ${what} client exited with ${result}\n${out}\n${err}")
    endif()
    if(NOT out STREQUAL "marlo::ERR_INVALID_ARGUMENT\n")
        message(FATAL_ERROR "install test: ${what} client printed '${out}'")
    endif()
    if(NOT err MATCHES " E marlo_client: installed client says hello 42\n")
        message(FATAL_ERROR "install test: ${what} client logged '${err}'")
    endif()
    message(STATUS "${what} client: ${out}${err}")
endfunction()

run("cmake --install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(file
        include/marlo/base/logger.h
        include/marlo/base/error.h
        include/marlo_platform/android/log.h
        include/marlo_platform/marlo_host/hooks.h
        ${LIBDIR}/libmarlo.so
        ${LIBDIR}/cmake/Marlo/MarloConfig.cmake
        ${LIBDIR}/cmake/Marlo/MarloConfigVersion.cmake
        ${LIBDIR}/pkgconfig/marlo.pc)
    if(NOT EXISTS ${prefix}/${file})
        message(FATAL_ERROR "install test: ${file} was not installed")
    endif()
endforeach()

# 1. CMake package.
run("configuring the CMake client" ${CMAKE_COMMAND} -S ${CLIENT_DIR} -B ${WORK_DIR}/cmake-client
    -G ${GENERATOR} -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${client_flags}")
run("building the CMake client" ${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-client)
check_client("CMake package" ${WORK_DIR}/cmake-client/marlo_client)

# 2. pkg-config, with the rpath the client chooses itself.
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${libdir}/pkgconfig
        ${PKG_CONFIG} --cflags --libs marlo
    RESULT_VARIABLE result OUTPUT_VARIABLE pc_flags ERROR_VARIABLE err
    OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "install test: pkg-config marlo failed\n${err}")
endif()
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(extra_flags UNIX_COMMAND "${client_flags}")
run("building the pkg-config client" ${CXX} -std=c++17 ${extra_flags}
    ${CLIENT_DIR}/main.cpp -o ${WORK_DIR}/pkg-config-client ${pc_flags}
    -Wl,-rpath,${libdir})
check_client("pkg-config" ${WORK_DIR}/pkg-config-client)
