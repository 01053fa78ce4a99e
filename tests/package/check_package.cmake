# Installs the built tree into a scratch prefix, then builds the orchestrator
# that the README shows against it out of tree, once through find_package and
# once through pkg-config, and runs both. Run by ctest with -D BUILD_DIR,
# SRC_DIR, WORK_DIR, CC, C_FLAGS (the sanitizer flags of the tree), LIBDIR,
# SOVERSION, OBJDUMP.
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(tool bin/qov_replay share/qov_autosync_orch/wireshark/qov.lua)
  if(NOT EXISTS ${prefix}/${tool})
    message(FATAL_ERROR "the package lacks ${tool}")
  endif()
endforeach()
run("find" find ${prefix} -name qov_host_ctl.h)
string(STRIP "${out}" ctl_headers)
if(ctl_headers)
  message(FATAL_ERROR "the host control header was installed: ${ctl_headers}")
endif()
# qovctl, the control endpoint's client, comes with the package and runs.
run("installed qovctl" ${prefix}/bin/qovctl --help)
if(NOT out MATCHES "qovctl -s SOCKET")
  message(FATAL_ERROR "qovctl --help printed no usage:\n${out}")
endif()
file(READ ${SRC_DIR}/../../README.md readme)
if(NOT readme MATCHES "```c\n(.*)```\n")
  message(FATAL_ERROR "README.md holds no C example")
endif()
file(WRITE ${WORK_DIR}/orch.c "${CMAKE_MATCH_1}")
# The library keeps its table-message registry for the process's life (it never
# gives those blocks back), and this orchestrator allocates with plain malloc.
set(ENV{ASAN_OPTIONS} "$ENV{ASAN_OPTIONS}:detect_leaks=0")

# find_package, the way an orchestrator's CMake project uses the package.
run("configure with find_package" ${CMAKE_COMMAND} -S ${SRC_DIR} -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DORCH_SOURCE=${WORK_DIR}/orch.c -DCMAKE_C_COMPILER=${CC}
    "-DCMAKE_C_FLAGS=${C_FLAGS}")
run("build with find_package" ${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run("orchestrator built with find_package" ${WORK_DIR}/cmake-build/orch)

# pkg-config, the way a Makefile uses it; the prefix is not on the loader's path.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run("pkg-config" pkg-config --cflags --libs qov_autosync_orch)
separate_arguments(pc_flags UNIX_COMMAND "${out}")
separate_arguments(san_flags UNIX_COMMAND "${C_FLAGS}")
run("build with pkg-config" ${CC} -std=c11 -pedantic -Wall -Wextra -Werror ${san_flags}
    ${WORK_DIR}/orch.c -o ${WORK_DIR}/orch_pc ${pc_flags})
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})
run("orchestrator built with pkg-config" ${WORK_DIR}/orch_pc)

# Both programs must load the library by its versioned name.
foreach(exe ${WORK_DIR}/cmake-build/orch ${WORK_DIR}/orch_pc)
  run("objdump" ${OBJDUMP} -p ${exe})
  if(NOT out MATCHES "NEEDED +libqov_autosync_orch\\.so\\.${SOVERSION}\n")
    message(FATAL_ERROR "${exe} does not need libqov_autosync_orch.so.${SOVERSION}:\n${out}")
  endif()
endforeach()
