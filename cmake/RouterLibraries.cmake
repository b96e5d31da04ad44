# The router's own libraries, taken where they are (also under CMAKE_PREFIX_PATH); elsewhere the stand-ins
# of compat/ serve, with the same header names and calls.
find_path(UCI_INCLUDE_DIR uci.h)
find_library(UCI_LIBRARY uci)
find_library(UBOX_LIBRARY ubox)
mark_as_advanced(UCI_INCLUDE_DIR UCI_LIBRARY UBOX_LIBRARY)

if(UCI_INCLUDE_DIR AND UCI_LIBRARY AND UBOX_LIBRARY)
    message(STATUS "libuci: ${UCI_LIBRARY}")
    add_library(dnsproxyd_uci INTERFACE)
    target_include_directories(dnsproxyd_uci SYSTEM INTERFACE ${UCI_INCLUDE_DIR})
    target_link_libraries(dnsproxyd_uci INTERFACE ${UCI_LIBRARY} ${UBOX_LIBRARY})
else()
    message(STATUS "libuci: not found, using the stand-in in compat/uci")
    add_subdirectory(${PROJECT_SOURCE_DIR}/compat/uci)
    add_library(dnsproxyd_uci ALIAS dnsproxyd_compat_uci)
endif()

# xxHash is used through its header alone.
find_path(XXHASH_INCLUDE_DIR xxhash.h REQUIRED)
mark_as_advanced(XXHASH_INCLUDE_DIR)
