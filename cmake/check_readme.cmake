# cmake -DROOT=dir -P check_readme.cmake
#
# What the README shows is what the build compiles.
file(READ "${ROOT}/README.md" readme)
foreach(file IN ITEMS hello_server.cc hello_host.cc stranger/CMakeLists.txt)
  file(READ "${ROOT}/examples/${file}" text)
  string(FIND "${readme}" "\n${text}```\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/${file} as it is")
  endif()
endforeach()
