# Tests written as programs and scripts rather than GoogleTest cases: a C program on the C
# interface, Python driving the C interface through ctypes, the larkpost command, and the
# installed package as a consumer meets it. Included by tests/CMakeLists.txt.

set(LARKPOST_SYSTEM_PYTHON /usr/bin/python3)
set(script_dir ${CMAKE_CURRENT_SOURCE_DIR}/scripts)
set(sanitized FALSE)
if(LARKPOST_SANITIZE)
  set(sanitized TRUE)
endif()

# The C interface's header is valid C: this program is compiled as C11, pedantic.
add_executable(component_c_program ${CMAKE_CURRENT_SOURCE_DIR}/component_c_program.c)
set_target_properties(component_c_program PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_compile_options(component_c_program PRIVATE -Wall -Wextra -pedantic -Werror)
target_link_libraries(component_c_program PRIVATE larkpost)
add_test(NAME component_c_program
  COMMAND component_c_program ${CMAKE_CURRENT_BINARY_DIR}/component_c_program.eml)
set_tests_properties(component_c_program PROPERTIES TIMEOUT 60)

# Python through ctypes. A sanitized library needs its runtime loaded ahead of the interpreter.
set(ctypes_environment
  LARKPOST_LIBRARY=$<TARGET_FILE:larkpost>
  LARKPOST_SOURCE_DIR=${PROJECT_SOURCE_DIR})
if(LARKPOST_SANITIZE MATCHES "address")
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
    OUTPUT_VARIABLE asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++.so
    OUTPUT_VARIABLE cxx_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  # The interpreter's own allocations are not ours to judge: leaks are checked by the C++ tests.
  list(APPEND ctypes_environment "LD_PRELOAD=${asan_runtime}:${cxx_runtime}"
    "ASAN_OPTIONS=detect_leaks=0:abort_on_error=1")
endif()
add_test(NAME component_c_api_ctypes
  COMMAND ${LARKPOST_SYSTEM_PYTHON} ${script_dir}/c_api_ctypes_test.py)
set_tests_properties(component_c_api_ctypes PROPERTIES
  ENVIRONMENT "${ctypes_environment}" TIMEOUT 300)

# The larkpost command.
if(TARGET larkpost_cli)
  add_test(NAME tools_larkpost_cli
    COMMAND ${LARKPOST_SYSTEM_PYTHON} ${script_dir}/cli_test.py)
  set_tests_properties(tools_larkpost_cli PROPERTIES
    ENVIRONMENT "LARKPOST_CLI=$<TARGET_FILE:larkpost_cli>;LARKPOST_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
    TIMEOUT 300)
endif()

# Install to a temporary prefix and build the example against it with find_package, and a
# program with pkg-config. A sanitized build installs a library that ordinary programs cannot
# load, so the check runs on plain builds only.
if(NOT sanitized)
  add_test(NAME package_install_and_consume
    COMMAND ${LARKPOST_SYSTEM_PYTHON} ${script_dir}/package_test.py
      --cmake ${CMAKE_COMMAND} --build-dir ${PROJECT_BINARY_DIR} --source-dir ${PROJECT_SOURCE_DIR}
      --config $<CONFIG>)
  set_tests_properties(package_install_and_consume PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE)
endif()

# The command's helpers are tested in C++ as well.
if(TARGET component_cli_parts_test AND TARGET larkpost_cli_parts)
  target_link_libraries(component_cli_parts_test PRIVATE larkpost_cli_parts)
endif()
