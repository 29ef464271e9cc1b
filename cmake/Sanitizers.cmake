# TOLVEN_SANITIZE=address builds everything with ASan and UBSan, TOLVEN_SANITIZE=thread with TSan.
# TOLVEN_FUZZ=ON (clang only) builds everything with ASan, UBSan and libFuzzer's coverage.
set(TOLVEN_SANITIZE "" CACHE STRING "Sanitizer set: '' (none), 'address' (ASan+UBSan) or 'thread' (TSan)")
set_property(CACHE TOLVEN_SANITIZE PROPERTY STRINGS "" address thread)

if(TOLVEN_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "TOLVEN_FUZZ needs clang (CXX=clang++-14), not ${CMAKE_CXX_COMPILER_ID}")
    endif()
    if(NOT TOLVEN_SANITIZE STREQUAL "")
        message(FATAL_ERROR "TOLVEN_FUZZ brings its own sanitizers; leave TOLVEN_SANITIZE empty")
    endif()
    set(_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    add_compile_options(${_flags} -fsanitize=fuzzer-no-link -g)
    add_link_options(${_flags})
elseif(TOLVEN_SANITIZE STREQUAL "address")
    set(_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(TOLVEN_SANITIZE STREQUAL "thread")
    set(_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT TOLVEN_SANITIZE STREQUAL "")
    message(FATAL_ERROR "TOLVEN_SANITIZE must be '', 'address' or 'thread', not '${TOLVEN_SANITIZE}'")
endif()

if(DEFINED _flags AND NOT TOLVEN_FUZZ)
    add_compile_options(${_flags} -g)
    add_link_options(${_flags})
endif()

# clang links the sanitizer runtimes into executables only, so shared libraries built with them
# keep undefined runtime symbols; everywhere else a library must resolve all it names.
if(TOLVEN_FUZZ)
    set(TOLVEN_NO_UNDEFINED "")
else()
    set(TOLVEN_NO_UNDEFINED -Wl,--no-undefined)
endif()
