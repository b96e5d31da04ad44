# This machine's processor with the router's C library: Debian's musl and Debian's g++. The headers of the C++
# library are made for glibc; the folder musl/ adapts the few that the shipped code uses. The run-time library
# of C++ cannot be adapted, so programs that need it, such as the tests, are not built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_CXX_COMPILER_WORKS TRUE) # the C compiler links every program
set(CMAKE_FIND_ROOT_PATH /usr/lib/x86_64-linux-musl)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The headers of the kernel and of xxHash, without those of glibc.
set(headers ${CMAKE_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${headers})
foreach(name linux asm-generic xxhash.h)
    file(CREATE_LINK /usr/include/${name} ${headers}/${name} SYMBOLIC)
endforeach()
file(CREATE_LINK /usr/include/x86_64-linux-gnu/asm ${headers}/asm SYMBOLIC)
set(XXHASH_INCLUDE_DIR ${headers} CACHE PATH "")

execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE gxx OUTPUT_STRIP_TRAILING_WHITESPACE)
string(JOIN " " CMAKE_CXX_FLAGS_INIT
    -nostdinc -nostdinc++ -isystem ${CMAKE_CURRENT_LIST_DIR}/musl -isystem /usr/include/c++/${gxx}
    -isystem /usr/include/x86_64-linux-gnu/c++/${gxx} -isystem /usr/include/x86_64-linux-musl
    -isystem /usr/lib/gcc/x86_64-linux-gnu/${gxx}/include -isystem ${headers})
set(CMAKE_C_FLAGS_INIT "-isystem ${headers}")
