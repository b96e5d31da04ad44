# Flags of all programs (dnsproxyd_common) and of the installed ones (dnsproxyd_shipped).
add_library(dnsproxyd_common INTERFACE)
target_compile_options(dnsproxyd_common INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${DNSPROXYD_WERROR}>:-Werror>)
if(DNSPROXYD_SANITIZE)
    # The checks vptr and function need run-time type information and a part of clang's C++ library. The
    # daemon is built without both.
    target_compile_options(dnsproxyd_common INTERFACE
        -fsanitize=${DNSPROXYD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
        # With the instrumentation g++ reports uninitialised members of the C++ library, which are false
        # alarms.
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

# The programs have no run-time part of the C++ library: the C compiler links them (LINKER_LANGUAGE C), so
# code that needs one does not link. Without this line CMake would add the library.
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
    # The daemon calls the C library directly through its table of addresses, which saves a jump per call.
    target_compile_options(dnsproxyd_shipped INTERFACE -fno-plt)
    target_link_options(dnsproxyd_shipped INTERFACE
        -Wl,--gc-sections -Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
endif()

# Link-time optimisation of the daemon: the operations on the path of a query call each other across files.
# Its libraries hold both forms of the code, so that tests link them without it and can replace functions.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT DNSPROXYD_SANITIZE)
    set(DNSPROXYD_LTO_COMPILE -flto -ffat-lto-objects)
    # -fno-lto for all other programs: the linker would optimise every object that has the intermediate form.
    set(links_whole $<STREQUAL:$<TARGET_PROPERTY:NAME>,dnsproxyd>)
    target_link_options(dnsproxyd_common INTERFACE $<IF:${links_whole},-flto=auto,-fno-lto>)
endif()
