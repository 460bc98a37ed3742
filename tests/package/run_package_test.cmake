# Installs the build tree into a scratch prefix, checks the installed layout
# (shared library with its SONAME, public header, CMake package, pkg-config
# file), then builds and runs a tiny consumer against the prefix twice: with
# find_package(qvnlib) and with the flags pkg-config gives.
#
#   cmake -DBUILD_DIR=... -DCONSUMER_DIR=... -DWORK_DIR=... -DC_COMPILER=...
#         [-DTOOLCHAIN=...] [-DEMULATOR=...] [-DSANITIZE=ON] -DEXPECTED_SONAME=...
#         -P run_package_test.cmake
cmake_minimum_required(VERSION 3.16)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --component qvnlib --prefix ${prefix})

# ---- layout
file(GLOB_RECURSE config ${prefix}/*/qvnlibConfig.cmake)
file(GLOB_RECURSE pc ${prefix}/*/qvnlib.pc)
file(GLOB_RECURSE so ${prefix}/*/${EXPECTED_SONAME})
foreach(what config pc so)
  if(NOT ${what})
    message(FATAL_ERROR "installed tree lacks its ${what} file")
  endif()
endforeach()
if(NOT EXISTS ${prefix}/include/qvnlib/qvnlib.h)
  message(FATAL_ERROR "installed tree lacks include/qvnlib/qvnlib.h")
endif()
find_program(READELF NAMES readelf aarch64-linux-gnu-readelf)
if(READELF)
  run(${READELF} -d ${so})
  if(NOT run_output MATCHES "SONAME\\)[^\n]*\\[${EXPECTED_SONAME}\\]")
    message(FATAL_ERROR "SONAME of ${so} is not ${EXPECTED_SONAME}:\n${run_output}")
  endif()
endif()

# Flags that a sanitized library needs in every program that links it.
set(extra_flags "")
if(SANITIZE)
  set(extra_flags "-fsanitize=address,undefined")
endif()

function(run_consumer exe)
  set(cmd ${exe})
  if(EMULATOR)
    set(cmd ${EMULATOR} ${exe})
  endif()
  run(${cmd})
  if(NOT run_output MATCHES "consumer ok")
    message(FATAL_ERROR "${exe} printed: ${run_output}")
  endif()
endfunction()

# ---- find_package(qvnlib)
set(configure ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${C_COMPILER}
    "-DCMAKE_EXE_LINKER_FLAGS=${extra_flags}" "-DCMAKE_C_FLAGS=${extra_flags}")
if(TOOLCHAIN)
  list(APPEND configure -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
endif()
run(${configure})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run_consumer(${WORK_DIR}/consumer/consumer)

# ---- pkg-config, as a Makefile-based integrator builds
get_filename_component(pc_dir ${pc} DIRECTORY)
find_program(PKG_CONFIG NAMES pkg-config pkgconf)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_LIBDIR} ${pc_dir})
  run(${PKG_CONFIG} --cflags --libs qvnlib)
else()
  # No pkg-config on this machine: expand the file's variables as it would.
  file(STRINGS ${pc} pc_lines)
  set(vars "pcfiledir=${pc_dir}")
  set(run_output "")
  foreach(line IN LISTS pc_lines)
    foreach(v IN LISTS vars)
      string(REGEX REPLACE "=.*" "" name "${v}")
      string(REGEX REPLACE "^[^=]*=" "" value "${v}")
      string(REPLACE "\${${name}}" "${value}" line "${line}")
    endforeach()
    if(line MATCHES "^([a-z]+)=(.*)$")
      list(APPEND vars "${CMAKE_MATCH_1}=${CMAKE_MATCH_2}")
    elseif(line MATCHES "^(Cflags|Libs): (.*)$")
      string(APPEND run_output " ${CMAKE_MATCH_2}")
    endif()
  endforeach()
endif()
separate_arguments(pc_flags UNIX_COMMAND "${run_output}")
separate_arguments(san_flags UNIX_COMMAND "${extra_flags}")
get_filename_component(lib_dir ${so} DIRECTORY)
# The host property stand-in beside the library is found through -rpath-link
# at link time and through the run path at run time.
run(${C_COMPILER} -std=c99 -Wall -Werror ${san_flags} ${CONSUMER_DIR}/consumer.c ${pc_flags}
    -Wl,-rpath-link,${lib_dir} -Wl,-rpath,${lib_dir} -o ${WORK_DIR}/consumer_pc)
run_consumer(${WORK_DIR}/consumer_pc)
message(STATUS "package consumer built and ran against ${prefix}")
