# What the benchmarks compute without any store; the programs themselves are built with
# QVDBASE_BUILD_BENCH, and have tests of their own there.
find_package(nlohmann_json REQUIRED)
file(GLOB bench_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/bench/figures/*.cpp
                                          ${PROJECT_SOURCE_DIR}/bench/report/*.cpp)
list(FILTER bench_sources EXCLUDE REGEX "/main\\.cpp$")
target_sources(${name}_tests PRIVATE ${bench_sources})
target_include_directories(${name}_tests PRIVATE ${PROJECT_SOURCE_DIR}/bench)
target_link_libraries(${name}_tests PRIVATE nlohmann_json::nlohmann_json)
