# Installs the build tree into a temporary prefix, moves the installed tree elsewhere, and
# checks that it still works there: vxmigrate finds its library and plug-in and migrates the
# sample device; a program outside the project builds against the installed CMake package
# and calls the shared layer, and so does one built with pkg-config's flags alone; the unit
# names the installed program.
#
# cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DLIBDIR=lib -DCXX=... \
#       -DCXX_FLAGS=... -DGENERATOR=Ninja -P install_test.cmake
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "failed (${rc}): ${command}\n${out}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/installed)
file(STRINGS ${WORK_DIR}/installed/lib/systemd/system/vxmigrate.service exec REGEX "^ExecStart=")
if(NOT exec MATCHES "^ExecStart=${WORK_DIR}/installed/bin/vxmigrate ")
  message(FATAL_ERROR "the unit does not name the installed program: ${exec}")
endif()
file(RENAME ${WORK_DIR}/installed ${WORK_DIR}/moved)
set(tree ${WORK_DIR}/moved)

foreach(file bin/vxmigrate bin/vxfile ${LIBDIR}/libvxshared.so
             lib/vxmigrate/plugins/AppMigrator.so
             include/vxmigrate/support/FileDigest.h include/vxmigrate/support/types/FileURL.h
             ${LIBDIR}/pkgconfig/vxshared.pc ${LIBDIR}/cmake/vxshared/vxsharedConfig.cmake
             share/man/man1/vxmigrate.1.gz share/man/man1/vxfile.1.gz
             share/bash-completion/completions/vxmigrate share/bash-completion/completions/vxfile
             lib/systemd/system/vxmigrate.service)
  if(NOT EXISTS ${tree}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
run(objdump -p ${tree}/${LIBDIR}/libvxshared.so)
if(NOT run_output MATCHES "SONAME +libvxshared\\.so\\.[0-9]+\n")
  message(FATAL_ERROR "the shared layer has no versioned SONAME:\n${run_output}")
endif()

# Neither the build tree nor the environment may be what makes it work.
set(clean_env ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH --unset=VX_DEVICE_ROOT)
run(${clean_env} ${tree}/bin/vxmigrate demo --apps 2)
if(NOT run_output MATCHES "result: +migrated")
  message(FATAL_ERROR "the installed vxmigrate demo did not migrate:\n${run_output}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/consumer
    -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${tree} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
file(WRITE ${WORK_DIR}/abc "abc")
run(${clean_env} ${WORK_DIR}/consumer/consumer ${WORK_DIR}/abc)
if(NOT run_output STREQUAL "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n")
  message(FATAL_ERROR "the consumer printed: ${run_output}")
endif()

# The compiler's default language level is older than the headers need: the flags must say.
set(ENV{PKG_CONFIG_PATH} ${tree}/${LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs vxshared)
separate_arguments(pkg_flags UNIX_COMMAND "${run_output}")
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
run(${CXX} ${cxx_flags} ${SOURCE_DIR}/tests/install/consumer/main.cpp ${pkg_flags}
    -o ${WORK_DIR}/pkg-config-consumer)
run(${clean_env} ${WORK_DIR}/pkg-config-consumer ${WORK_DIR}/abc)
if(NOT run_output STREQUAL "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n")
  message(FATAL_ERROR "the pkg-config consumer printed: ${run_output}")
endif()

file(REMOVE_RECURSE ${WORK_DIR})
