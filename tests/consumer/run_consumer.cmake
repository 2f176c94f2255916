# Puts the built library into a scratch prefix, then builds and runs a C and a
# C++ consumer through find_package(qxcurl) and through pkg-config.
#   FROM_DEB=ON: the prefix is the Debian package (cpack -G DEB) unpacked with
#   dpkg-deb, whose contents are checked first; otherwise cmake --install.
file(REMOVE_RECURSE ${WORK_DIR})
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(rc)
    message(FATAL_ERROR "${ARGN} failed (${rc}):\n${out}")
  endif()
endfunction()

if(FROM_DEB)
  run(cpack -G DEB --config ${BINARY_DIR}/CPackConfig.cmake -B ${WORK_DIR}/deb)
  file(GLOB deb ${WORK_DIR}/deb/*.deb)
  run(dpkg-deb -x ${deb} ${WORK_DIR}/root)
  set(prefix ${WORK_DIR}/root/usr)
  foreach(pattern bin/qxcurl include/qxcurl/qxcurl_c.h include/qxcurl/qxclnt_curl.h
          include/qxcurl/qx_status.h lib*/libqxcurl.so lib*/cmake/qxcurl/qxcurlConfig.cmake
          lib*/pkgconfig/qxcurl.pc share/man/man1/qxcurl.1.gz)
    file(GLOB_RECURSE found ${prefix}/${pattern})
    if(NOT found AND NOT EXISTS ${prefix}/${pattern})
      message(FATAL_ERROR "the package lacks ${pattern}")
    endif()
  endforeach()
  execute_process(COMMAND dpkg-deb -f ${deb} Depends OUTPUT_VARIABLE depends)
  foreach(dep libcurl4 libjansson libssl)
    if(NOT depends MATCHES "${dep}")
      message(FATAL_ERROR "the package does not depend on ${dep}: ${depends}")
    endif()
  endforeach()
else()
  set(prefix ${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(GLOB libdir LIST_DIRECTORIES true ${prefix}/lib ${prefix}/lib/*-linux-gnu)
list(FILTER libdir EXCLUDE REGEX "pkgconfig|cmake")
string(REPLACE ";" ":" libpath "${libdir}")
set(ENV{LD_LIBRARY_PATH} "${libpath}")
run(${WORK_DIR}/build/consumer)
run(${WORK_DIR}/build/consumer_c)

file(GLOB pcdir ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
execute_process(COMMAND pkg-config --cflags --libs qxcurl OUTPUT_VARIABLE flags
                RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(rc)
  message(FATAL_ERROR "pkg-config does not know qxcurl")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${SOURCE_DIR}/tests/consumer/main.cpp ${flags} -o ${WORK_DIR}/consumer_pc)
run(cc -std=c99 -Wall -Wextra -pedantic -Werror ${SOURCE_DIR}/tests/consumer/main.c ${flags}
    -o ${WORK_DIR}/consumer_c_pc)
run(${WORK_DIR}/consumer_pc)
run(${WORK_DIR}/consumer_c_pc)
run(${prefix}/bin/qxcurl --help)
