# The AddressSanitizer and UndefinedBehaviorSanitizer build, shared by scripts/test.sh
# --sanitize (its test suite) and scripts/fuzz.sh (its fuzz targets): one tree, built by
# Clang 14, the library, platform and simulator at -O1 with the fuzzer's coverage, the tests
# at -O0; line tables and function names only (-g1), all that the reports print.
# Sourced, not run.
sanitize_dir=build-sanitize
sanitize_opts=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14
  "-DCMAKE_C_FLAGS_DEBUG=-g1 -O1" "-DCMAKE_CXX_FLAGS_DEBUG=-g1 -O1" -DIPCLIENT_SANITIZE=ON -DIPCLIENT_FUZZ=ON
  -DIPCLIENT_BENCH=OFF -DIPCLIENT_WERROR=ON)
