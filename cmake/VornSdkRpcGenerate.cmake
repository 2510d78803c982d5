# vornsdkrpc_generate(TARGET target PROTOS proto... [IMPORT_DIRS dir...] [MESSAGES_ONLY])
#
# Generates the C++ messages and gRPC stubs of .proto files and compiles them into `target`:
#
#   add_executable(agent Main.cpp)
#   target_link_libraries(agent PRIVATE VornSdkRpc::VornSdkRpcLib)
#   vornsdkrpc_generate(TARGET agent PROTOS Agent.proto)   # Main.cpp includes "Agent.grpc.pb.h"
#
# TARGET         a library or program of the calling folder, which links VornSdkRpc::VornSdkRpcLib or gRPC::grpc++
#                itself. Who links it finds the generated headers too.
# PROTOS         absolute, or relative to the calling folder. A proto is imported, and its header is included, under
#                its name relative to the first of IMPORT_DIRS that it lies in, or else to the calling folder.
# IMPORT_DIRS    where else imports are looked for; absolute, or relative to the calling folder. The SDK's own,
#                import "VornSdkRpcProtos/VornSdkRpc.proto", are always found (in ${VornSdkRpcLib_PROTO_DIR}).
# MESSAGES_ONLY  generates no stubs, for a target that links protobuf alone.
#
# A proto is generated again when it changes or what it imports does. The compiler gives no warnings about generated
# code. Whatever is wrong with the arguments is an error that says so.

# Where the generators are is noted here, where find_package(gRPC) was called; the function can be called from folders
# that don't see those targets.
foreach(generator protobuf::protoc gRPC::grpc_cpp_plugin)
  get_target_property(location ${generator} LOCATION)
  set_property(GLOBAL PROPERTY vornsdkrpc_${generator} ${location})
endforeach()

function(vornsdkrpc_generate)
  cmake_parse_arguments(PARSE_ARGV 0 arg MESSAGES_ONLY TARGET "PROTOS;IMPORT_DIRS")
  set(usage "vornsdkrpc_generate(TARGET target PROTOS proto... [IMPORT_DIRS dir...] [MESSAGES_ONLY])")
  if(arg_UNPARSED_ARGUMENTS OR NOT arg_TARGET OR NOT arg_PROTOS)
    message(FATAL_ERROR "${usage} was called with: ${ARGV}")
  endif()
  if(NOT TARGET ${arg_TARGET})
    message(FATAL_ERROR "vornsdkrpc_generate: there is no target ${arg_TARGET}")
  endif()
  get_target_property(target_dir ${arg_TARGET} SOURCE_DIR)
  if(NOT target_dir STREQUAL CMAKE_CURRENT_SOURCE_DIR)
    message(FATAL_ERROR "vornsdkrpc_generate: call it in the folder of ${arg_TARGET}, ${target_dir}")
  endif()

  set(import_dirs)
  foreach(dir IN LISTS arg_IMPORT_DIRS ITEMS ${CMAKE_CURRENT_SOURCE_DIR})
    cmake_path(ABSOLUTE_PATH dir NORMALIZE)
    list(APPEND import_dirs ${dir})
  endforeach()
  set(import_options ${import_dirs} ${VornSdkRpcLib_PROTO_DIR})
  list(REMOVE_DUPLICATES import_options)
  list(TRANSFORM import_options PREPEND -I)

  set(out ${CMAKE_CURRENT_BINARY_DIR}/generated/${arg_TARGET})
  file(MAKE_DIRECTORY ${out})
  foreach(proto IN LISTS arg_PROTOS)
    cmake_path(ABSOLUTE_PATH proto NORMALIZE)
    vornsdkrpc_import_name(name ${proto} ${import_dirs})
    vornsdkrpc_add_generator(sources ${out} ${proto} ${name} "${import_options}" ${arg_MESSAGES_ONLY})
    target_sources(${arg_TARGET} PRIVATE ${sources})
  endforeach()
  target_include_directories(${arg_TARGET} SYSTEM PUBLIC $<BUILD_INTERFACE:${out}>)
endfunction()

# Sets `var` to the name of a proto relative to the first of the folders that it lies in.
function(vornsdkrpc_import_name var proto)
  if(NOT EXISTS ${proto})
    message(FATAL_ERROR "vornsdkrpc_generate: there is no ${proto}")
  endif()
  foreach(dir IN LISTS ARGN)
    cmake_path(IS_PREFIX dir ${proto} NORMALIZE inside)
    if(inside)
      cmake_path(RELATIVE_PATH proto BASE_DIRECTORY ${dir} OUTPUT_VARIABLE name)
      set(${var} ${name} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  message(FATAL_ERROR "vornsdkrpc_generate: ${proto} lies in none of the folders ${ARGN}")
endfunction()

# Adds the command that generates from one proto, and sets `var` to the sources and headers that it makes.
function(vornsdkrpc_add_generator var out proto name import_options messages_only)
  get_property(protoc GLOBAL PROPERTY vornsdkrpc_protobuf::protoc)
  get_property(plugin GLOBAL PROPERTY vornsdkrpc_gRPC::grpc_cpp_plugin)
  cmake_path(REMOVE_EXTENSION name LAST_ONLY OUTPUT_VARIABLE stem)
  set(outputs ${out}/${stem}.pb.cc ${out}/${stem}.pb.h)
  set(options --cpp_out=${out})
  if(NOT messages_only)
    list(APPEND outputs ${out}/${stem}.grpc.pb.cc ${out}/${stem}.grpc.pb.h)
    list(APPEND options --grpc_out=${out} --plugin=protoc-gen-grpc=${plugin})
  endif()
  add_custom_command(
    OUTPUT ${outputs}
    COMMAND ${protoc} ${import_options} ${options} --dependency_out=${out}/${stem}.d ${name}
    DEPENDS ${proto}
    DEPFILE ${out}/${stem}.d
    COMMENT "Generating ${stem}.pb"
    VERBATIM
  )
  set_source_files_properties(${outputs} PROPERTIES COMPILE_OPTIONS -w SKIP_UNITY_BUILD_INCLUSION ON)
  set(${var} ${outputs} PARENT_SCOPE)
endfunction()
