# Warning set shared by every target of the project.
add_library(ipclient_warnings INTERFACE)
target_compile_options(ipclient_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wcast-align -Wnull-dereference -Wdouble-promotion -Wformat=2
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
  -Werror)
