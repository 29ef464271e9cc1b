# TOLVEN_SANITIZE=address builds everything with ASan and UBSan, TOLVEN_SANITIZE=thread with TSan.
set(TOLVEN_SANITIZE "" CACHE STRING "Sanitizer set: '' (none), 'address' (ASan+UBSan) or 'thread' (TSan)")
set_property(CACHE TOLVEN_SANITIZE PROPERTY STRINGS "" address thread)

if(TOLVEN_SANITIZE STREQUAL "address")
    set(_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(TOLVEN_SANITIZE STREQUAL "thread")
    set(_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT TOLVEN_SANITIZE STREQUAL "")
    message(FATAL_ERROR "TOLVEN_SANITIZE must be '', 'address' or 'thread', not '${TOLVEN_SANITIZE}'")
endif()

if(DEFINED _flags)
    add_compile_options(${_flags} -g)
    add_link_options(${_flags})
endif()
