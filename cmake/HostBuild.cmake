# Host build settings, shared by every host target.
#
# -fshort-wchar everywhere: wchar_t is UTF-16 as on Windows, so that the
# driver's L"..." literals and the host kernel agree on WCHAR. Libraries built
# without it that pass wchar_t across their interface (GoogleTest) are built
# here from source with the same flag.

option(AMBREL_WERROR "Treat warnings as errors" ON)
set(AMBREL_SANITIZE "" CACHE STRING "Sanitizers for every host target: '', 'address,undefined' or 'thread'")
option(AMBREL_FUZZERS "Build the libFuzzer targets (needs clang)" OFF)
option(AMBREL_BENCHMARKS "Build the benchmarks" OFF)

add_compile_options(-fshort-wchar -Wall -Wextra -Wno-missing-field-initializers)
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

# Flags of driver sources on the host: what the kernel-mode build allows.
set(AMBREL_DRIVER_FLAGS -fno-exceptions -fno-rtti)
