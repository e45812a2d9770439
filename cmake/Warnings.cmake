# Warnings for our own targets only; third-party headers come in as system includes.
function(tarnwick_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
endfunction()

# A shared library or loadable module of the agent: no undefined symbols at link time. Not in the
# fuzz build: clang links the sanitizer runtimes into the executable only, and the libraries
# find them there at load time.
function(tarnwick_library target)
  tarnwick_warnings(${target})
  if(NOT TARNWICK_FUZZ)
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
endfunction()

# A loadable module: lib<name>_module.so with CreateModule exported, found by the agent at run time.
function(tarnwick_module target)
  tarnwick_library(${target})
  set_target_properties(${target} PROPERTIES
    INSTALL_RPATH "$ORIGIN:${TARNWICK_PREFIX}/lib:${TARNWICK_PREFIX}/module")
  install(TARGETS ${target} LIBRARY DESTINATION module)
endfunction()
