# cmake -DROOT=dir -P check_readme.cmake
#
# The programs that the README shows are those that the build compiles.
file(READ "${ROOT}/README.md" readme)
foreach(program IN ITEMS hello_server hello_host)
  file(READ "${ROOT}/examples/${program}.cc" text)
  string(FIND "${readme}" "```cpp\n${text}```\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/${program}.cc as it is")
  endif()
endforeach()
