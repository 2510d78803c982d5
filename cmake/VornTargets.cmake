# What every target of this project shares: the language, the warnings, the sanitizers, and assertions that
# name the sources by where they stand in the project, not on the machine that built them.
add_library(vorn_build_flags INTERFACE)
target_compile_features(vorn_build_flags INTERFACE cxx_std_20)
target_compile_options(vorn_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2
  $<$<BOOL:${VORNSDKRPC_WERROR}>:-Werror>
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}=/src)
if(VORNSDKRPC_SANITIZE)
  # g++ takes what a sanitizer adds to the standard library's std::regex for uses of uninitialized members.
  target_compile_options(vorn_build_flags INTERFACE
    -fsanitize=${VORNSDKRPC_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(vorn_build_flags INTERFACE -fsanitize=${VORNSDKRPC_SANITIZE})
endif()

# A shared library that agents link: symbols hidden unless exported, assertions on in every build type.
function(vorn_shared_library target)
  add_library(${target} SHARED ${ARGN})
  add_library(VornSdkRpc::${target} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE -UNDEBUG -fno-semantic-interposition)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:vorn_build_flags>)
  target_link_options(${target} PRIVATE -Wl,--no-undefined-version)
  if(NOT VORNSDKRPC_SANITIZE)
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
endfunction()
