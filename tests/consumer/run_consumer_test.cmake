# Installs the build into a scratch prefix, then configures, builds and runs the consumer.
# A cross build passes TOOLCHAIN_ARGS and EMULATOR ('|' for ';') and the target's
# PKG_CONFIG_LIBDIR.
string(REPLACE "|" ";" toolchain_args "${TOOLCHAIN_ARGS}")
string(REPLACE "|" ";" emulator "${EMULATOR}")
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
if(toolchain_args)
  # A cross build looks for packages inside its sysroot only; name the package's folder.
  file(GLOB_RECURSE config ${WORK_DIR}/prefix/*/vistrel_storeConfig.cmake)
  get_filename_component(config_dir "${config}" DIRECTORY)
  list(APPEND toolchain_args -Dvistrel_store_DIR=${config_dir})
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build
  -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix ${toolchain_args} RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND ${emulator} ${WORK_DIR}/build/consumer RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer run failed: ${rc}")
endif()
# The examples build against the same install (they run against the demo shop in the package
# test).
foreach(example minimal shop_app)
  execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/${example}
    -B ${WORK_DIR}/${example} -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix ${toolchain_args}
    RESULT_VARIABLE rc OUTPUT_QUIET)
  if(NOT rc)
    execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/${example} RESULT_VARIABLE rc)
  endif()
  if(rc)
    message(FATAL_ERROR "example ${example} does not build against the install: ${rc}")
  endif()
endforeach()
# pkg-config must find the installed library too.
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  if(PKG_CONFIG_LIBDIR)
    set(ENV{PKG_CONFIG_LIBDIR} "${PKG_CONFIG_LIBDIR}")
  endif()
  # The library folder is lib, lib64 or lib/<multiarch>: wherever the .pc file went.
  file(GLOB_RECURSE pc_file ${WORK_DIR}/prefix/*/vistrel_store.pc)
  get_filename_component(pc_dir "${pc_file}" DIRECTORY)
  get_filename_component(lib_dir "${pc_dir}" DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs vistrel_store RESULT_VARIABLE rc
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(rc)
    message(FATAL_ERROR "pkg-config cannot find vistrel_store")
  endif()
  # Natively, the consumer builds and runs with nothing but what pkg-config says.
  if(NOT toolchain_args)
    separate_arguments(flags UNIX_COMMAND "${flags}")
    execute_process(COMMAND ${CXX} -std=c++17 ${SOURCE_DIR}/tests/consumer/main.cc ${flags}
      -o ${WORK_DIR}/consumer_pc RESULT_VARIABLE rc)
    if(rc)
      message(FATAL_ERROR "consumer build with pkg-config flags failed: ${rc}")
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${lib_dir}"
      ${WORK_DIR}/consumer_pc RESULT_VARIABLE rc)
    if(rc)
      message(FATAL_ERROR "consumer built with pkg-config flags failed to run: ${rc}")
    endif()
  endif()
endif()
