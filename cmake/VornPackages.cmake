# The Debian packages that `cpack -G DEB` makes of the components `runtime`, `dev`, `agent` and `client`, with their
# documents.
set(runtime_package libvornsdkrpc${VORN_ABI_VERSION})
set(dev_package libvornsdkrpc-dev)
set(agent_package vorn-routing-agent)
set(client_package vornctl)
set(components runtime dev)
if(BUILD_TESTING)
  list(APPEND components agent client)
endif()

set(CPACK_PACKAGE_CONTACT "VornSdkRpcLib developers <vornsdkrpc@vorn.example>")
set(VORN_RELEASE_DATE "Wed, 25 Nov 2026 12:00:00 +0000")
configure_file(packaging/changelog.in changelog @ONLY)
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/changelog COMMAND_ERROR_IS_FATAL ANY)
foreach(component ${components})
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${${component}_package} COMPONENT ${component}
  )
endforeach()

# The pages and what they link to, side by side as they are here, so that their links lead somewhere there too.
set(doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${dev_package})
install(FILES README.md CHANGELOG.md DESTINATION ${doc_dir} COMPONENT dev)
install(
  DIRECTORY docs examples agents vornctl
  DESTINATION ${doc_dir}
  COMPONENT dev
  FILES_MATCHING
  PATTERN "*.md"
  PATTERN "*.svg"
  PATTERN "*.png"
  PATTERN "*.h"
  PATTERN "*.cpp"
  PATTERN "*.proto"
  PATTERN "*.json"
  PATTERN "*.py"
  PATTERN vornctl/vornctl
  PATTERN contributing.md EXCLUDE
  PATTERN __pycache__ EXCLUDE
)
install(FILES examples/minimal_agent/CMakeLists.txt DESTINATION ${doc_dir}/examples/minimal_agent COMPONENT dev)

# Links to headers lead to where those are installed.
cmake_path(ABSOLUTE_PATH doc_dir BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE full_doc_dir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${full_doc_dir} OUTPUT_VARIABLE include_dir)
install(CODE "file(CREATE_LINK ${include_dir}/VornSdkRpc
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${doc_dir}/VornSdkRpc\" SYMBOLIC)" COMPONENT dev
)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "RPC runtime for agents on network devices")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "The libraries that agents run with.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${dev_package})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION}), \
libgrpc++-dev, libgrpc-dev, libprotobuf-dev, protobuf-compiler, protobuf-compiler-grpc, libfmt-dev, libspdlog-dev"
)
set(CPACK_DEBIAN_DEV_DESCRIPTION "What building an agent takes: headers, messages, files for build tools.")

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME ${agent_package})
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_AGENT_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS
    "${runtime_package} (= ${PROJECT_VERSION}), systemd | systemd-standalone-sysusers"
)
set(CPACK_DEBIAN_AGENT_PACKAGE_SUGGESTS "vornctl, logrotate")
set(CPACK_DEBIAN_AGENT_DESCRIPTION "The routing agent: keeps routing tables and serves them over gRPC.")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA conffiles postinst prerm postrm)
list(TRANSFORM CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA PREPEND ${PROJECT_SOURCE_DIR}/packaging/agent/)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/VornSdkRpc ${PROJECT_BINARY_DIR}/platform
                                                ${PROJECT_BINARY_DIR}/VornSdkRpcProtos
)
set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME ${client_package})
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_CLIENT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS "python3, python3-grpcio (>= 1.51), python3-protobuf (>= 3.21)")
set(CPACK_DEBIAN_CLIENT_PACKAGE_SUGGESTS "python3-argcomplete")
set(CPACK_DEBIAN_CLIENT_PACKAGE_CONTROL_EXTRA postinst prerm)
list(TRANSFORM CPACK_DEBIAN_CLIENT_PACKAGE_CONTROL_EXTRA PREPEND ${PROJECT_SOURCE_DIR}/packaging/client/)
set(CPACK_DEBIAN_CLIENT_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_CLIENT_DESCRIPTION "The command line client of the routing agent.")
include(CPack)
