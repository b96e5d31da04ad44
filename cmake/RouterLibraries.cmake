# Uses the router's libraries where CMake finds them, also under CMAKE_PREFIX_PATH, and the stand-ins in
# compat/ elsewhere. Both have the same header names and calls.
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

find_path(UBUS_INCLUDE_DIR libubus.h)
find_path(UBOX_INCLUDE_DIR libubox/uloop.h)
find_library(UBUS_LIBRARY ubus)
mark_as_advanced(UBUS_INCLUDE_DIR UBOX_INCLUDE_DIR UBUS_LIBRARY)

if(UBUS_INCLUDE_DIR AND UBOX_INCLUDE_DIR AND UBUS_LIBRARY AND UBOX_LIBRARY)
    message(STATUS "libubus: ${UBUS_LIBRARY}")
    add_library(dnsproxyd_ubus INTERFACE)
    target_include_directories(dnsproxyd_ubus SYSTEM INTERFACE ${UBUS_INCLUDE_DIR} ${UBOX_INCLUDE_DIR})
    target_link_libraries(dnsproxyd_ubus INTERFACE ${UBUS_LIBRARY} ${UBOX_LIBRARY})
else()
    message(STATUS "libubus: not found, using the stand-in in compat/ubus")
    add_subdirectory(${PROJECT_SOURCE_DIR}/compat/ubus)
    add_library(dnsproxyd_ubus ALIAS dnsproxyd_compat_ubus)
endif()

# Only the header of xxHash is used.
find_path(XXHASH_INCLUDE_DIR xxhash.h REQUIRED)
mark_as_advanced(XXHASH_INCLUDE_DIR)
