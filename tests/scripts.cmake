# Tests written as programs and scripts rather than GoogleTest cases: a C program on the C
# interface, and tests/scripts/hosts_test.py, whose classes run as tests of their own: Python
# through ctypes, the larkpost command, the installed package. Included by tests/CMakeLists.txt.

set(hosts_test /usr/bin/python3 ${CMAKE_CURRENT_SOURCE_DIR}/scripts/hosts_test.py)

# The C interface's header is valid C: this program is compiled as C11, pedantic.
add_executable(component_c_program ${CMAKE_CURRENT_SOURCE_DIR}/component_c_program.c)
set_target_properties(component_c_program PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_compile_options(component_c_program PRIVATE -Wall -Wextra -pedantic -Werror)
target_link_libraries(component_c_program PRIVATE larkpost)
if(LARKPOST_SANITIZE AND CMAKE_C_COMPILER_ID MATCHES "Clang")
  # The library's C++ checks (vptr) need the sanitizer's C++ runtime, which clang links for C++ only.
  set_target_properties(component_c_program PROPERTIES LINKER_LANGUAGE CXX)
endif()
add_test(NAME component_c_program
  COMMAND component_c_program ${CMAKE_CURRENT_BINARY_DIR}/component_c_program.eml)
set_tests_properties(component_c_program PROPERTIES TIMEOUT 60)

# Python through ctypes. A sanitized library needs its runtime loaded ahead of the interpreter,
# whose own allocations are not ours to judge (leaks are checked by the C++ tests).
set(ctypes_environment LARKPOST_LIBRARY=$<TARGET_FILE:larkpost>)
if(LARKPOST_SANITIZE MATCHES "address")
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-x86_64.so
      OUTPUT_VARIABLE sanitizer_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  else()
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
      OUTPUT_VARIABLE sanitizer_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++.so
    OUTPUT_VARIABLE cxx_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND ctypes_environment "LD_PRELOAD=${sanitizer_runtime}:${cxx_runtime}"
    "ASAN_OPTIONS=detect_leaks=0:abort_on_error=1")
endif()
add_test(NAME component_c_api_ctypes COMMAND ${hosts_test} CInterface)
set_tests_properties(component_c_api_ctypes PROPERTIES ENVIRONMENT "${ctypes_environment}" TIMEOUT 300)

# The larkpost command.
if(TARGET larkpost_cli)
  add_test(NAME tools_larkpost_cli COMMAND ${hosts_test} Command)
  set_tests_properties(tools_larkpost_cli PROPERTIES
    ENVIRONMENT "LARKPOST_CLI=$<TARGET_FILE:larkpost_cli>" TIMEOUT 300)
  # TLS relays: the command and the C interface.
  add_test(NAME tools_secure_relay COMMAND ${hosts_test} SecureRelay)
  set_tests_properties(tools_secure_relay PROPERTIES
    ENVIRONMENT "LARKPOST_CLI=$<TARGET_FILE:larkpost_cli>;${ctypes_environment}" TIMEOUT 300)
endif()

# Install to a temporary prefix and build consumers against it (find_package, pkg-config), and a
# host that adds the source tree with add_subdirectory. A sanitized build installs a library
# that ordinary programs cannot load, so this runs on plain builds only.
if(NOT LARKPOST_SANITIZE)
  add_test(NAME package_install_and_consume COMMAND ${hosts_test} Package)
  set_tests_properties(package_install_and_consume PROPERTIES
    ENVIRONMENT "LARKPOST_CMAKE=${CMAKE_COMMAND};LARKPOST_BUILD_DIR=${PROJECT_BINARY_DIR}"
    TIMEOUT 600 RUN_SERIAL TRUE)
endif()

# The command's helpers are tested in C++ as well.
if(TARGET component_cli_parts_test AND TARGET larkpost_cli_parts)
  target_link_libraries(component_cli_parts_test PRIVATE larkpost_cli_parts)
endif()
