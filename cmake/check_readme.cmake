# cmake -DROOT=dir -P check_readme.cmake
#
# The program that the README shows is the one that the build compiles.
file(READ "${ROOT}/README.md" readme)
file(READ "${ROOT}/examples/hello_server.cc" program)
string(FIND "${readme}" "```cpp\n${program}```\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md does not show examples/hello_server.cc as it is")
endif()
