# test_matcher runs the vector path once per SIMD target the CPU supports (Highway's switch).
find_package(hwy REQUIRED)
target_link_libraries(test_matcher PRIVATE hwy::hwy)
