# Finds what a camera's firmware provides, each thing on its own, and puts a stand-in where it is missing.
# Gives the targets platform::bus (libubox, libubus, libblobmsg_json), platform::uci, platform::msglog and
# platform::lens_mask, and the variable PTZD_HAVE_ULOOP_FD_PTR.

include(CheckLibraryExists)

find_path(UBUS_INCLUDE_DIR libubus.h)
find_path(UBOX_INCLUDE_DIR libubox/uloop.h)
find_path(UCI_INCLUDE_DIR uci.h)
find_path(JSONC_INCLUDE_DIR json-c/json.h REQUIRED)
find_library(UBOX_LIBRARY ubox)
find_library(UBUS_LIBRARY ubus)
find_library(UCI_LIBRARY uci)
find_library(BLOBMSG_JSON_LIBRARY blobmsg_json)
find_library(JSONC_LIBRARY json-c REQUIRED)
find_path(MSGLOG_INCLUDE_DIR msglog.h)
find_library(MSGLOG_LIBRARY msglog)
find_library(LENS_MASK_LIBRARY NAMES lens_mask lensmask)

add_library(json_c INTERFACE)
target_link_libraries(json_c INTERFACE ${JSONC_LIBRARY})
target_include_directories(json_c SYSTEM INTERFACE ${JSONC_INCLUDE_DIR} ${JSONC_INCLUDE_DIR}/json-c)

set(PTZD_HOST_PARTS)
if(UBUS_INCLUDE_DIR AND UBOX_INCLUDE_DIR AND UCI_INCLUDE_DIR
   AND UBOX_LIBRARY AND UBUS_LIBRARY AND UCI_LIBRARY AND BLOBMSG_JSON_LIBRARY)
    set(PTZD_SYSTEM_LIBS_FOUND TRUE)
endif()
if(PTZD_HOST_LIBS STREQUAL "system" AND NOT PTZD_SYSTEM_LIBS_FOUND)
    message(FATAL_ERROR "PTZD_HOST_LIBS is system, but libubox, libubus, libuci and libblobmsg_json were not all found")
endif()
if(PTZD_HOST_LIBS STREQUAL "system" OR (PTZD_HOST_LIBS STREQUAL "auto" AND PTZD_SYSTEM_LIBS_FOUND))
    set(PTZD_USE_SYSTEM_LIBS TRUE)
endif()

add_library(platform_bus INTERFACE)
add_library(platform_uci INTERFACE)
add_library(platform_msglog INTERFACE)
add_library(platform_lens_mask INTERFACE)
foreach(part bus uci msglog lens_mask)
    add_library(platform::${part} ALIAS platform_${part})
endforeach()

if(PTZD_USE_SYSTEM_LIBS)
    target_include_directories(platform_bus SYSTEM INTERFACE ${UBUS_INCLUDE_DIR} ${UBOX_INCLUDE_DIR})
    target_link_libraries(platform_bus INTERFACE ${UBUS_LIBRARY} ${BLOBMSG_JSON_LIBRARY} ${UBOX_LIBRARY})
    target_include_directories(platform_uci SYSTEM INTERFACE ${UCI_INCLUDE_DIR} ${UBOX_INCLUDE_DIR})
    target_link_libraries(platform_uci INTERFACE ${UCI_LIBRARY} ${UBOX_LIBRARY})
    check_library_exists(${UBOX_LIBRARY} uloop_set_uloop_fd_ptr "" PTZD_HAVE_ULOOP_FD_PTR)
else()
    list(APPEND PTZD_HOST_PARTS libubox libubus ubusd ubus libuci uci)
    target_link_libraries(platform_bus INTERFACE ubus blobmsg_json ubox)
    target_link_libraries(platform_uci INTERFACE uci)
endif()

target_link_libraries(platform_bus INTERFACE json_c) # after those that need it, which matters to static libraries

if(MSGLOG_INCLUDE_DIR AND MSGLOG_LIBRARY)
    target_include_directories(platform_msglog SYSTEM INTERFACE ${MSGLOG_INCLUDE_DIR})
    target_link_libraries(platform_msglog INTERFACE ${MSGLOG_LIBRARY})
else()
    list(APPEND PTZD_HOST_PARTS msglog)
    target_link_libraries(platform_msglog INTERFACE msglog)
endif()

if(LENS_MASK_LIBRARY)
    target_link_libraries(platform_lens_mask INTERFACE ${LENS_MASK_LIBRARY})
else()
    list(APPEND PTZD_HOST_PARTS lens_mask)
    target_link_libraries(platform_lens_mask INTERFACE lens_mask)
endif()

if(PTZD_HOST_PARTS) # what is installed finds the stand-ins that are installed beside it
    set(CMAKE_INSTALL_RPATH "$ORIGIN:$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()
foreach(part ${PTZD_HOST_PARTS})
    add_subdirectory(host/${part})
endforeach()
message(STATUS "Stand-ins: ${PTZD_HOST_PARTS}")
