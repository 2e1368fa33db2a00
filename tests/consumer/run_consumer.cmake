# Installs the built library into a scratch prefix, then compiles and runs a
# strict C11 program against the installed header, pkg-config file and
# shared library, and checks that the library exports nothing but its API.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

execute_process(COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix}
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()

file(GLOB_RECURSE pcfile ${prefix}/*/tarnwick.pc)
if(NOT pcfile)
  message(FATAL_ERROR "tarnwick.pc not installed")
endif()
get_filename_component(pcdir ${pcfile} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
execute_process(COMMAND pkg-config --define-prefix --cflags --libs tarnwick
  OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config cannot read tarnwick.pc")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
get_filename_component(libdir ${pcdir} DIRECTORY)

# A sanitized library needs its runtime in the program that loads it.
set(extra "")
if(SANITIZE)
  set(extra -fsanitize=address,undefined)
endif()
execute_process(COMMAND gcc -std=c11 -Wall -Wextra -pedantic -Werror ${extra}
  ${SOURCE_DIR}/tests/consumer/consumer.c ${flags} -Wl,-rpath,${libdir} -o ${WORK_DIR}/consumer
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the C consumer does not build against the installed copy")
endif()
execute_process(COMMAND ${WORK_DIR}/consumer WORKING_DIRECTORY ${WORK_DIR} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the C consumer failed: ${rc}")
endif()

# The package config must work for a CMake consumer as well.
if(NOT EXISTS ${libdir}/cmake/tarnwick/tarnwickConfig.cmake)
  message(FATAL_ERROR "no CMake package config installed")
endif()

# Only the exports may be visible.
file(GLOB so ${libdir}/libtarnwick.so)
execute_process(COMMAND nm -D --defined-only ${so} OUTPUT_VARIABLE symbols)
string(REGEX MATCHALL "[0-9a-f]+ [TtWw] [^\n]+" defined "${symbols}")
set(api create_message create_message_x create_ex_message extract_message extract_message_x
  mime_extract_start mime_extract_data mime_extract_end mime_extract_end_ex base64_encode
  base64_decode quoted_encode quoted_decode uuencode uudecode binhex_enc binhex_dec
  mime_encode_HdrField mime_decode_HdrField mime_FreeList mime_options)
foreach(line ${defined})
  string(REGEX REPLACE "^[0-9a-f]+ [TtWw] " "" name "${line}")
  if(name MATCHES "^_(init|fini)$")
    continue()
  endif()
  list(FIND api ${name} found)
  if(found EQUAL -1)
    message(FATAL_ERROR "libtarnwick.so exports an internal symbol: ${name}")
  endif()
endforeach()
