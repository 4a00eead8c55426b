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

# Where both directories lie below the prefix, the prefix follows the file, so that an installed tree can be moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(AGENTKIT_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
    set(AGENTKIT_PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
    set(AGENTKIT_PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
    file(RELATIVE_PATH AGENTKIT_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    set(AGENTKIT_PC_PREFIX "\${pcfiledir}/${AGENTKIT_PC_TO_PREFIX}")
    set(AGENTKIT_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    set(AGENTKIT_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/agentkit.pc.in ${PROJECT_BINARY_DIR}/agentkit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/agentkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
