# SPDX-License-Identifier: Apache-2.0
# Built when the settings code uses libuci: the settings tests against libuci, so that the
# table our own reader is held to is the one libuci reads.
add_executable(vireo_uci_tests test_util.cpp uci_test.cpp)
target_link_libraries(vireo_uci_tests PRIVATE vireo_sim GTest::gtest GTest::gtest_main)
gtest_discover_tests(vireo_uci_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS uci TIMEOUT 300)
