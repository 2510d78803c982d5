# What `cmake --install` puts where, in the components `runtime` (what a running agent needs) and `dev` (what
# building one needs), also when it installs a project that this one is a subfolder of.
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/VornSdkRpcLib)

set(libraries VornSdkRpcLib VornSdkRpcProtos VornPlatform VornSdkRpcCertificates VornSdkRpcAccounting VornSdkRpcJournal
              VornSdkRpcMetrics VornSdkRpcTesting
)
add_custom_target(vorn_libraries DEPENDS ${libraries}) # what is to be built before an installation
install(
  TARGETS ${libraries}
  EXPORT VornSdkRpcLibTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE COMPONENT dev
  INCLUDES
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
)

foreach(folder VornSdkRpc vorn)
  install(
    DIRECTORY ${folder}
    TYPE INCLUDE
    COMPONENT dev
    FILES_MATCHING
    PATTERN "*.h"
    PATTERN CallCounters.h EXCLUDE
    PATTERN CallFields.h EXCLUDE
    PATTERN Histogram.h EXCLUDE
    PATTERN ServingThread.h EXCLUDE
    PATTERN FileWatch.h EXCLUDE
    PATTERN FloodWatch.h EXCLUDE
    PATTERN Goaway.h EXCLUDE
    PATTERN GrpcLog.h EXCLUDE
    PATTERN Later.h EXCLUDE
    PATTERN ListeningSocket.h EXCLUDE
    PATTERN LocalCaller.h EXCLUDE
    PATTERN MessageLimit.h EXCLUDE
    PATTERN OwnDescriptor.h EXCLUDE
    PATTERN CertificateSet.h EXCLUDE
    PATTERN Withdrawal.h EXCLUDE
  )
endforeach()
install(
  DIRECTORY platform/
  TYPE INCLUDE
  COMPONENT dev
  FILES_MATCHING
  PATTERN "*.h"
  PATTERN SinkFailures.h EXCLUDE
)
install(FILES ${PROJECT_BINARY_DIR}/platform/generated/vorn/export.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn
        COMPONENT dev
)
set(messages_dir ${PROJECT_BINARY_DIR}/VornSdkRpcProtos/generated/VornSdkRpcProtos/VornSdkRpcProtos)
set(accounting_dir ${PROJECT_BINARY_DIR}/VornSdkRpc/generated/VornSdkRpcAccounting/VornSdkRpcProtos)
install(FILES VornSdkRpcProtos/VornSdkRpc.proto ${messages_dir}/VornSdkRpc.pb.h VornSdkRpcProtos/Accounting.proto
              ${accounting_dir}/Accounting.pb.h ${accounting_dir}/Accounting.grpc.pb.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VornSdkRpcProtos COMPONENT dev
)

# For find_package(VornSdkRpcLib CONFIG).
include(CMakePackageConfigHelpers)
configure_package_config_file(
  cmake/VornSdkRpcLibConfig.cmake.in ${PROJECT_BINARY_DIR}/VornSdkRpcLibConfig.cmake INSTALL_DESTINATION ${config_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR
)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VornSdkRpcLibConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VornSdkRpcLibConfig.cmake ${PROJECT_BINARY_DIR}/VornSdkRpcLibConfigVersion.cmake
              cmake/VornSdkRpcGenerate.cmake DESTINATION ${config_dir} COMPONENT dev
)
install(EXPORT VornSdkRpcLibTargets NAMESPACE VornSdkRpc:: DESTINATION ${config_dir} COMPONENT dev)

# For pkg-config. Its prefix is found from where the file lies, so the tree can be moved as a whole.
cmake_path(
  RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE
  prefix_from_pc
)
configure_file(cmake/VornSdkRpcLib.pc.in VornSdkRpcLib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/VornSdkRpcLib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
