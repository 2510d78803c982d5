# An agent with protos of its own, one of them in an import folder, and its test, for the projects that take the
# library in.
add_executable(agent ${CMAKE_CURRENT_LIST_DIR}/Main.cpp)
target_link_libraries(agent PRIVATE VornSdkRpc::VornSdkRpcLib)
add_executable(agent_test ${CMAKE_CURRENT_LIST_DIR}/Test.cpp)
target_link_libraries(agent_test PRIVATE VornSdkRpc::Testing)
foreach(program agent agent_test)
  vornsdkrpc_generate(
    TARGET ${program} PROTOS ${CMAKE_CURRENT_LIST_DIR}/Agent.proto ${CMAKE_CURRENT_LIST_DIR}/names/Names.proto
    IMPORT_DIRS ${CMAKE_CURRENT_LIST_DIR}/names ${CMAKE_CURRENT_LIST_DIR}
  )
endforeach()
if(NOT EXISTS ${VornSdkRpcLib_PROTO_DIR}/VornSdkRpcProtos/VornSdkRpc.proto)
  message(FATAL_ERROR "VornSdkRpcLib_PROTO_DIR is not the folder of the SDK's protos: '${VornSdkRpcLib_PROTO_DIR}'")
endif()
