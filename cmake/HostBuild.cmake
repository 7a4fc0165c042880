# Host build settings, shared by every host target.
#
# The layout flags (cmake/HostAbi.cmake) apply everywhere. Libraries built
# without -fshort-wchar that pass wchar_t across their interface (GoogleTest)
# are built here from source with the same flag.
include(${CMAKE_CURRENT_LIST_DIR}/HostAbi.cmake)

option(AMBREL_WERROR "Treat warnings as errors" ON)
set(AMBREL_SANITIZE "" CACHE STRING "Sanitizers for every host target: '', 'address,undefined' or 'thread'")
option(AMBREL_FUZZERS "Build the libFuzzer targets (needs clang)" OFF)
option(AMBREL_BENCHMARKS "Build the benchmarks" OFF)

add_compile_options(${AMBREL_HOST_ABI_FLAGS} -Wall -Wextra -Wno-missing-field-initializers)
if(AMBREL_WERROR)
    add_compile_options(-Werror)
endif()
if(AMBREL_SANITIZE)
    add_compile_options(-fsanitize=${AMBREL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${AMBREL_SANITIZE})
    if(AMBREL_SANITIZE MATCHES "undefined")
        # The vptr check needs run-time type information, which the driver's
        # classes (and tests deriving from them) are built without.
        add_compile_options(-fno-sanitize=vptr)
    endif()
endif()
if(AMBREL_FUZZERS)
    # Coverage for the code under test (fuzz/coverage.allow, .ignore); the fuzzer
    # main only in fuzz/. -O1 whatever the build type: unoptimised, the host
    # kernel's string and map code takes most of every input's time, and the
    # sanitizers lose nothing at -O1.
    add_compile_options(-O1 -fsanitize=fuzzer-no-link
                        -fsanitize-coverage-allowlist=${CMAKE_SOURCE_DIR}/fuzz/coverage.allow
                        -fsanitize-coverage-ignorelist=${CMAKE_SOURCE_DIR}/fuzz/coverage.ignore)
endif()

find_package(Threads REQUIRED)

# The shipped driver image (build/windows/ambrel.sys, with ambrel.map beside
# it) for the suites, benchmarks and fuzzer replays that run on both builds of
# the driver. Empty: they run on the host-built driver only. The Windows build
# must have made the file before those runs start.
set(AMBREL_DRIVER_IMAGE "" CACHE FILEPATH "ambrel.sys to run the two-build suites on as well (empty: host build only)")
if(AMBREL_DRIVER_IMAGE)
    message(STATUS "Suites that reach the driver only as Windows would also run on ${AMBREL_DRIVER_IMAGE}")
else()
    message(STATUS "AMBREL_DRIVER_IMAGE is empty: the suites run on the host-built driver only")
endif()
