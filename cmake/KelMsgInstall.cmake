include(CMakePackageConfigHelpers)

install(TARGETS KelMsgFeaMessaging KelBus KelMsgPlatform
        EXPORT KelMsgFeaMessagingTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

if(TARGET kelmsg)
  install(TARGETS kelmsg RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(DIRECTORY KelMsgFeaMessaging/include/KelMsgFeaMessaging
                  KelMsgFeaMessaging/containers/include/KelMsgFeaMessaging
                  bus/include/KelMsgFeaMessaging
                  platform/include/KelMsgFeaMessaging
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT KelMsgFeaMessagingTargets
        NAMESPACE KelMsgFeaMessaging::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KelMsgFeaMessaging)

configure_package_config_file(cmake/KelMsgFeaMessagingConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KelMsgFeaMessaging)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KelMsgFeaMessaging)

configure_file(cmake/KelMsgFeaMessaging.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessaging.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessaging.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES config/kelbus-mosquitto.conf config/kelbus-site-mosquitto.conf config/kelbus-site.acl
              config/kelbus-bridge.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/KelMsgFeaMessaging)
