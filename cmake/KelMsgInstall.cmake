include(CMakePackageConfigHelpers)

# Three components, each one Debian package (KelMsgPackaging.cmake): runtime,
# the shared libraries with the broker configurations they name; development,
# what a program needs to build against them; tool, kelmsg.

# Installed programs and libraries find the libraries beside them wherever the
# installation lies, without LD_LIBRARY_PATH.
set(kelmsg_libraries KelMsgFeaMessaging KelBus KelMsgPlatform)
set_target_properties(${kelmsg_libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${kelmsg_libraries}
        EXPORT KelMsgFeaMessagingTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT runtime
                NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

if(TARGET kelmsg)
  file(RELATIVE_PATH kelmsg_lib_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(kelmsg PROPERTIES INSTALL_RPATH "$ORIGIN/${kelmsg_lib_from_bin}")
  install(TARGETS kelmsg RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
endif()

install(DIRECTORY KelMsgFeaMessaging/include/KelMsgFeaMessaging
                  KelMsgFeaMessaging/containers/include/KelMsgFeaMessaging
                  bus/include/KelMsgFeaMessaging
                  platform/include/KelMsgFeaMessaging
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development)

install(EXPORT KelMsgFeaMessagingTargets
        NAMESPACE KelMsgFeaMessaging::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KelMsgFeaMessaging
        COMPONENT development)

configure_package_config_file(cmake/KelMsgFeaMessagingConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KelMsgFeaMessaging)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessagingConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KelMsgFeaMessaging
        COMPONENT development)

# The pkg-config file names the prefix that it is installed under (cmake
# --install --prefix, or a package's /usr), known only when installing: the
# first pass fills in everything else and leaves @CMAKE_INSTALL_PREFIX@ for the
# second, which the installation runs.
set(KELMSG_PKGCONFIG_PREFIX "@CMAKE_INSTALL_PREFIX@")
configure_file(cmake/KelMsgFeaMessaging.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessaging.pc.in @ONLY)
install(CODE "configure_file(\"${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessaging.pc.in\"
                             \"${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessaging.pc\" @ONLY)"
        COMPONENT development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KelMsgFeaMessaging.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

install(FILES config/kelbus-mosquitto.conf config/kelbus-site-mosquitto.conf config/kelbus-site.acl
              config/kelbus-bridge.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/KelMsgFeaMessaging
        COMPONENT runtime)

include(cmake/KelMsgPackaging.cmake)
