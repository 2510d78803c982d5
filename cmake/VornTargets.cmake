# What every target of this project shares: the language, the warnings and the sanitizers.
add_library(vorn_build_flags INTERFACE)
target_compile_features(vorn_build_flags INTERFACE cxx_std_20)
target_compile_options(
  vorn_build_flags
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Wformat=2
            $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
            $<$<BOOL:${VORNSDKRPC_WERROR}>:-Werror>
)
if(VORNSDKRPC_SANITIZE)
  # g++ takes what a sanitizer adds to the standard library's std::regex for uses of uninitialized members.
  target_compile_options(
    vorn_build_flags INTERFACE -fsanitize=${VORNSDKRPC_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
                               $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
  )
  target_link_options(vorn_build_flags INTERFACE -fsanitize=${VORNSDKRPC_SANITIZE})
endif()
if(VORNSDKRPC_SANITIZE MATCHES thread)
  # Lest a program's copies of inline functions, which the sanitizer looks into, serve gRPC's libraries too.
  set(map ${PROJECT_SOURCE_DIR}/cmake/sanitized-program.map)
  target_link_options(
    vorn_build_flags INTERFACE $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-Wl,--version-script=${map}>
  )
  # The sanitizer knows no fences; what asio hands to another thread is ordered by its locks as well.
  target_compile_definitions(vorn_build_flags INTERFACE ASIO_DISABLE_FENCED_BLOCK)
endif()

# Before 1.0 every minor version may change the libraries' interface; from then on only a major one.
set(VORN_ABI_VERSION ${PROJECT_VERSION_MAJOR})
if(PROJECT_VERSION_MAJOR EQUAL 0)
  string(APPEND VORN_ABI_VERSION .${PROJECT_VERSION_MINOR})
endif()

# vorn_shared_library(NAME [EXPORTS map] sources...): a shared library that agents link. It exports what cmake/exports.map,
# or another map there, lets through and its sources mark; tests/exports lists it. Assertions are on in every build type. It
# is never unloaded: what it tells protobuf and the platform's introspection about itself can't be taken back.
function(vorn_shared_library target)
  cmake_parse_arguments(arg "" "EXPORTS" "" ${ARGN})
  set(map ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  if(arg_EXPORTS)
    set(map ${PROJECT_SOURCE_DIR}/cmake/${arg_EXPORTS})
  endif()
  add_library(${target} SHARED ${arg_UNPARSED_ARGUMENTS})
  add_library(VornSdkRpc::${target} ALIAS ${target})
  set_target_properties(
    ${target}
    PROPERTIES CXX_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON
               VERSION ${PROJECT_VERSION}
               SOVERSION ${VORN_ABI_VERSION}
               LINK_DEPENDS ${map}
               # Side by side, as they are installed, so that they find one another here and there in the same way.
               LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/VornSdkRpc
               BUILD_WITH_INSTALL_RPATH ON
  )
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE -UNDEBUG -fno-semantic-interposition)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:vorn_build_flags>)
  target_link_options(${target} PRIVATE -Wl,-z,nodelete)
  if(NOT VORNSDKRPC_SANITIZE)
    target_link_options(${target} PRIVATE -Wl,-z,defs -Wl,--version-script=${map})
  endif()
endfunction()
