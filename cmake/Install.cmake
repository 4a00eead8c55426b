# Installs a prefix that both find_package(agentkit) and pkg-config understand.

include(CMakePackageConfigHelpers)

install(TARGETS agentkit EXPORT agentkitTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/agent DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(AGENTKIT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/agentkit)
install(EXPORT agentkitTargets NAMESPACE agentkit:: DESTINATION ${AGENTKIT_CMAKE_DIR})
configure_package_config_file(cmake/agentkitConfig.cmake.in ${PROJECT_BINARY_DIR}/agentkitConfig.cmake
    INSTALL_DESTINATION ${AGENTKIT_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/agentkitConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/agentkitConfig.cmake ${PROJECT_BINARY_DIR}/agentkitConfigVersion.cmake
    DESTINATION ${AGENTKIT_CMAKE_DIR})

file(RELATIVE_PATH AGENTKIT_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/agentkit.pc.in ${PROJECT_BINARY_DIR}/agentkit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/agentkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
