# What `cmake --install` puts where, in the components `runtime` (what a running agent needs) and `dev` (what
# building one needs), and the pair of Debian packages that `cpack -G DEB` makes of them.
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/VornSdkRpcLib)

install(TARGETS VornSdkRpcLib VornSdkRpcProtos VornPlatform EXPORT VornSdkRpcLibTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

foreach(folder VornSdkRpc vorn)
  install(DIRECTORY ${folder} TYPE INCLUDE COMPONENT dev FILES_MATCHING PATTERN "*.h" PATTERN FileWatch.h EXCLUDE)
endforeach()
install(DIRECTORY platform/ TYPE INCLUDE COMPONENT dev FILES_MATCHING PATTERN "*.h" PATTERN SinkFailures.h EXCLUDE)
install(FILES ${VORN_GENERATED_DIR}/vorn/export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn COMPONENT dev)
install(FILES VornSdkRpcProtos/VornSdkRpc.proto ${VORN_GENERATED_DIR}/VornSdkRpcProtos/VornSdkRpc.pb.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VornSdkRpcProtos COMPONENT dev)

# For find_package(VornSdkRpcLib CONFIG).
include(CMakePackageConfigHelpers)
configure_package_config_file(cmake/VornSdkRpcLibConfig.cmake.in ${PROJECT_BINARY_DIR}/VornSdkRpcLibConfig.cmake
  INSTALL_DESTINATION ${config_dir} PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VornSdkRpcLibConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VornSdkRpcLibConfig.cmake ${PROJECT_BINARY_DIR}/VornSdkRpcLibConfigVersion.cmake
  DESTINATION ${config_dir} COMPONENT dev)
install(EXPORT VornSdkRpcLibTargets NAMESPACE VornSdkRpc:: DESTINATION ${config_dir} COMPONENT dev)

# For pkg-config. Its prefix is found from where the file lies, so the tree can be moved as a whole.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  OUTPUT_VARIABLE prefix_from_pc)
configure_file(cmake/VornSdkRpcLib.pc.in VornSdkRpcLib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/VornSdkRpcLib.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

install(FILES README.md CHANGELOG.md TYPE DOC COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "RPC runtime for agents on network devices")
set(CPACK_PACKAGE_CONTACT "VornSdkRpcLib developers <vornsdkrpc@localhost>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvornsdkrpc${VORN_ABI_VERSION})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "The libraries that agents run with.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvornsdkrpc-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libvornsdkrpc${VORN_ABI_VERSION} (= ${PROJECT_VERSION}), \
libgrpc++-dev, libgrpc-dev, libprotobuf-dev, protobuf-compiler, protobuf-compiler-grpc, libfmt-dev, libspdlog-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "What building an agent takes: headers, messages, and files for CMake and pkg-config.")
include(CPack)
