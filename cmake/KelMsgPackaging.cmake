# Debian packages, one for each install component (KelMsgInstall.cmake):
#   cpack --config build/default/CPackConfig.cmake -B build/packages
# They install under /usr whatever prefix the tree was configured with: the
# installation finds its own files from where it lies.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelmsgfeamessaging)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "KelMsgFeaMessaging maintainers <maintainers@users.noreply.c-seed-596ce8ac.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Typed messages and file transfer between the programs of an analysis suite")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# What the libraries and kelmsg link against becomes dependencies on the
# Debian packages that hold those libraries; kelmsg's libraries of this
# project are found staged for the runtime package, beside kelmsg's.  A
# program that others build against the libraries depends on this version or
# a later one.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ../runtime/usr/${CMAKE_INSTALL_LIBDIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelmsgfeamessaging${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "the shared libraries and the broker configurations they name")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelmsgfeamessaging-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "headers, CMake package and pkg-config file for building against the libraries")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME kelmsg)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
# kelmsg bus starts mosquitto; every other command talks to any broker.
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS mosquitto)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "the command-line tool: a private broker, messages, file transfer, watching the bus")

include(CPack)
