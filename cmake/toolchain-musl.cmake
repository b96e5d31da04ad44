# This machine's processor with the router's C library: Debian's musl under Debian's g++. The C++ library's headers
# are glibc's companions; the few that the shipped code uses are made to stand on musl here. Its run-time library
# cannot be, so nothing that needs it (the tests) builds this way.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_CXX_COMPILER_WORKS TRUE) # it links nothing here: the C compiler does
set(CMAKE_FIND_ROOT_PATH /usr/lib/x86_64-linux-musl)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The kernel's headers and xxHash's, without glibc's beside them.
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
