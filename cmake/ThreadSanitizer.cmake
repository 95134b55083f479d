# ThreadSanitizer for every target; any report fails the test that made it (run with
# TSAN_OPTIONS=halt_on_error=1). IPCLIENT_TSAN tells the test support that the
# sanitizer's runtime owns the allocator, so nothing may interpose malloc.
add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
add_link_options(-fsanitize=thread)
add_compile_definitions(IPCLIENT_TSAN=1)
