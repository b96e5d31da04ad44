# Flags of everything in the tree (dnsproxyd_common) and of what is installed (dnsproxyd_shipped).
add_library(dnsproxyd_common INTERFACE)
target_compile_options(dnsproxyd_common INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${DNSPROXYD_WERROR}>:-Werror>)
if(DNSPROXYD_SANITIZE)
    # No vptr and function checks: they need run-time type information and a part of clang's library for C++,
    # which the daemon is built without.
    target_compile_options(dnsproxyd_common INTERFACE
        -fsanitize=${DNSPROXYD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
        # The instrumentation makes g++ see uses of the library's uninitialised members that are none.
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(dnsproxyd_common INTERFACE -fsanitize=${DNSPROXYD_SANITIZE})
    if(DNSPROXYD_SANITIZE MATCHES "undefined")
        target_compile_options(dnsproxyd_common INTERFACE
            -fno-sanitize=vptr $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=function>)
    endif()
endif()
if(DNSPROXYD_COVERAGE)
    target_compile_options(dnsproxyd_common INTERFACE --coverage -fprofile-abs-path -fprofile-update=atomic)
    target_link_options(dnsproxyd_common INTERFACE --coverage)
endif()

# No run-time part of the C++ library: the programs are linked by the C compiler (LINKER_LANGUAGE C), so
# whatever would need one does not link. CMake would add the run-time library of the objects' language.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
add_library(dnsproxyd_shipped INTERFACE)
target_link_libraries(dnsproxyd_shipped INTERFACE dnsproxyd_common)
target_compile_definitions(dnsproxyd_shipped INTERFACE _GNU_SOURCE)
target_compile_options(dnsproxyd_shipped INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
if(NOT DNSPROXYD_SANITIZE AND NOT DNSPROXYD_COVERAGE)
    target_compile_options(dnsproxyd_shipped INTERFACE
        -ffunction-sections -fdata-sections -fno-asynchronous-unwind-tables -fstack-protector-strong
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    # The daemon calls the C library through its table of addresses, not by way of stubs: one jump less a call.
    target_compile_options(dnsproxyd_shipped INTERFACE -fno-plt)
    target_link_options(dnsproxyd_shipped INTERFACE
        -Wl,--gc-sections -Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
endif()

# The daemon is optimised as a whole when it is linked: the operations of a query call each other across files.
# Its libraries hold both forms of the code, so that tests link them as they are, and can replace what they call.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT DNSPROXYD_SANITIZE)
    set(DNSPROXYD_LTO_COMPILE -flto -ffat-lto-objects)
    # The linker would optimise whatever holds the other form, if not told that it must not.
    set(links_whole $<STREQUAL:$<TARGET_PROPERTY:NAME>,dnsproxyd>)
    target_link_options(dnsproxyd_common INTERFACE $<IF:${links_whole},-flto=auto,-fno-lto>)
endif()
