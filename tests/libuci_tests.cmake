# Built when the settings code uses libuci: the settings tests against libuci, and our own
# uci reader compared with libuci on the same files through two builds of one probe.
add_library(vireo_settings_reader STATIC
  ${PROJECT_SOURCE_DIR}/common/vireo_common.cpp
  ${PROJECT_SOURCE_DIR}/common/vireo_platform.cpp
  ${PROJECT_SOURCE_DIR}/common/vireo_uci_reader.cpp
  ${PROJECT_SOURCE_DIR}/ubi/vireo_ubi_settings.cpp)
target_include_directories(vireo_settings_reader PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(vireo_settings_reader PUBLIC PkgConfig::CJSON)

add_executable(vireo_uci_probe_libuci uci_probe.cpp)
target_link_libraries(vireo_uci_probe_libuci PRIVATE vireo_core)
add_executable(vireo_uci_probe_reader uci_probe.cpp)
target_link_libraries(vireo_uci_probe_reader PRIVATE vireo_settings_reader)

add_executable(vireo_uci_tests test_util.cpp fake_root.cpp uci_test.cpp uci_diff_test.cpp)
target_link_libraries(vireo_uci_tests PRIVATE vireo_core GTest::gtest GTest::gtest_main)
target_compile_definitions(vireo_uci_tests PRIVATE
  VIREO_UCI_PROBE_LIBUCI="$<TARGET_FILE:vireo_uci_probe_libuci>"
  VIREO_UCI_PROBE_READER="$<TARGET_FILE:vireo_uci_probe_reader>")
add_dependencies(vireo_uci_tests vireo_uci_probe_libuci vireo_uci_probe_reader)
gtest_discover_tests(vireo_uci_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS uci TIMEOUT 300)
