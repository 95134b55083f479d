# AddressSanitizer (leak detection included) and UndefinedBehaviorSanitizer for every target;
# any report aborts the process so that the test fails.
add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
add_compile_definitions(IPCLIENT_SANITIZE=1)
