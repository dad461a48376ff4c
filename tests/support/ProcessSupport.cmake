# kelmsg_process_support: TestBroker and TestTlsFiles, with ChildProcess,
# PrivateBroker and the certificate maker (launch/), for tests and
# benchmarks.  Depends on neither GoogleTest nor the libraries.
add_library(kelmsg_process_support STATIC ${CMAKE_CURRENT_LIST_DIR}/TestBroker.cpp
                                          ${CMAKE_CURRENT_LIST_DIR}/TestTlsFiles.cpp)
target_include_directories(kelmsg_process_support PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_compile_definitions(kelmsg_process_support PRIVATE
  KELMSG_BROKER_CONFIGURATION="${PROJECT_SOURCE_DIR}/config/kelbus-mosquitto.conf"
  KELMSG_SITE_CONFIGURATION="${PROJECT_SOURCE_DIR}/config/kelbus-site-mosquitto.conf"
  KELMSG_SITE_ACL="${PROJECT_SOURCE_DIR}/config/kelbus-site.acl")
target_link_libraries(kelmsg_process_support PUBLIC kelmsg_launch PRIVATE kelmsg_warnings)

