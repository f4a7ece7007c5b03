# `cmake --install` of everything but the platform libraries: the tool, the SDK and the CMake package `vextool`.
include(CMakePackageConfigHelpers)

install(TARGETS vextool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# These are exported as archives; the package offers them linked whole (see vextoolConfig.cmake).
set_target_properties(vextool_core PROPERTIES EXPORT_NAME core_archive)
set_target_properties(vextool_apisdk PROPERTIES EXPORT_NAME apisdk_archive)
set_target_properties(vextool_rpcservice PROPERTIES EXPORT_NAME rpcservice_archive)
set_target_properties(vextool_envctl PROPERTIES EXPORT_NAME envctl)
install(TARGETS vextool_schema vextool_core vextool_apisdk vextool_rpcservice vextool_envctl EXPORT vextoolTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vextoolTargets NAMESPACE vextool:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vextool)
install(DIRECTORY modules/core/include/ modules/apisdk/include/ modules/envctl/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vextoolConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES cmake/vextoolConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/vextoolConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vextool)
