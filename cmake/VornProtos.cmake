# vorn_generate_protos(OUT_SOURCES var [GRPC] protos...)
#
# Generates the C++ of .proto files that are named relative to the project's root, into the build tree under
# the same relative names, and answers the generated sources in `var`. GRPC adds the service stubs.
set(VORN_GENERATED_DIR ${PROJECT_BINARY_DIR}/generated)
file(MAKE_DIRECTORY ${VORN_GENERATED_DIR})

function(vorn_generate_protos)
  cmake_parse_arguments(arg "GRPC" "OUT_SOURCES" "" ${ARGN})
  set(sources)
  foreach(proto ${arg_UNPARSED_ARGUMENTS})
    string(REGEX REPLACE "\\.proto$" "" stem ${proto})
    set(outputs ${VORN_GENERATED_DIR}/${stem}.pb.cc ${VORN_GENERATED_DIR}/${stem}.pb.h)
    set(options --cpp_out=${VORN_GENERATED_DIR})
    if(arg_GRPC)
      list(APPEND outputs ${VORN_GENERATED_DIR}/${stem}.grpc.pb.cc ${VORN_GENERATED_DIR}/${stem}.grpc.pb.h)
      list(APPEND options --grpc_out=${VORN_GENERATED_DIR}
        --plugin=protoc-gen-grpc=$<TARGET_FILE:gRPC::grpc_cpp_plugin>)
    endif()
    add_custom_command(OUTPUT ${outputs}
      COMMAND protobuf::protoc -I ${PROJECT_SOURCE_DIR} ${options} ${proto}
      DEPENDS ${PROJECT_SOURCE_DIR}/${proto}
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      COMMENT "Generating ${stem}.pb" VERBATIM)
    list(APPEND sources ${outputs})
  endforeach()
  set(${arg_OUT_SOURCES} ${sources} PARENT_SCOPE)
endfunction()
