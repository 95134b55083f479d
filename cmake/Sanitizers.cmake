# AddressSanitizer (leak detection included) and UndefinedBehaviorSanitizer for every target;
# any report aborts the process so that the test fails.
add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
add_compile_definitions(IPCLIENT_SANITIZE=1)
# A C program (the examples, the end-to-end test programs) loads the library, which is C++
# and checked by UndefinedBehaviorSanitizer's C++ part: Clang links that part, and the C++
# library it needs, only when told.
if(CMAKE_C_COMPILER_ID STREQUAL "Clang")
  add_link_options($<$<LINK_LANGUAGE:C>:-fsanitize-link-c++-runtime>)
  string(APPEND CMAKE_C_STANDARD_LIBRARIES " -lstdc++")
endif()
