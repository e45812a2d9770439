# libFuzzer targets (tests/fuzz): clang only. Every library of the tree is instrumented for
# coverage and built with ASan+UBSan, so a fault deep inside a parser stops the fuzzer; only the
# fuzz executables link libFuzzer's main.
option(TARNWICK_FUZZ "Build the libFuzzer targets (clang, ASan+UBSan)" OFF)
if(TARNWICK_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TARNWICK_FUZZ needs clang (e.g. -DCMAKE_CXX_COMPILER=clang++-14)")
  endif()
  if(TARNWICK_ASAN OR TARNWICK_TSAN)
    message(FATAL_ERROR "TARNWICK_FUZZ brings its own sanitizers; drop TARNWICK_ASAN/TSAN")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
