# What makes a build fit to be shipped. Holds for everything that is compiled and linked in this project,
# generated code, programs and tests included.

# Reproducible: nothing built names the machine's folders. Assertions and traces name the sources by where they
# stand in the project in every build; debuggers are to find them where they are in a Debug build.
set(optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
foreach(map ${PROJECT_SOURCE_DIR}=/src ${PROJECT_BINARY_DIR}=/src/build) # the last that fits counts
  add_compile_options(-fmacro-prefix-map=${map} $<${optimised}:-fdebug-prefix-map=${map}>)
endforeach()
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_INSTALL_RPATH $ORIGIN) # the libraries find one another wherever they are installed together

# Programs that can be loaded anywhere.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# Hardened. The sanitizers check more than these do, and _FORTIFY_SOURCE takes an optimised build.
if(NOT VORNSDKRPC_SANITIZE)
  add_compile_options("$<${optimised}:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
