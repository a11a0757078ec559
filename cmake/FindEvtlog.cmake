# Finds libevtlog and gives it as the target Evtlog::evtlog. VANDREL_EVTLOG says which:
#
#   system    what pkg-config knows as eventlog, or else as syslog-ng, which keeps it in a folder of its own
#   FOLDER    the one in FOLDER, where Debian's packages syslog-ng-core and syslog-ng-dev lie unpacked
#   auto      the system's, or else the one in build/evtlog of the source tree, which script/bootstrap unpacks
#
# EVTLOG_RUN_PATH is where an installed library looks for it, nothing where the loader looks anyway. One out of a folder
# is private: EVTLOG_PRIVATE_FILE is a copy in the build tree, to be installed beside the library, EVTLOG_LICENSE_FILE
# the text that goes with it.
find_package(PkgConfig QUIET)
set(EVTLOG_PRIVATE_FILE "")
set(evtlog_is_system FALSE)
set(evtlog_folder ${VANDREL_EVTLOG})
if(VANDREL_EVTLOG STREQUAL "auto")
    set(evtlog_folder ${PROJECT_SOURCE_DIR}/build/evtlog)
endif()
if(VANDREL_EVTLOG MATCHES "^(auto|system)$")
    pkg_search_module(EVTLOG QUIET eventlog syslog-ng)
    set(evtlog_is_system ${EVTLOG_FOUND})
endif()

if(evtlog_is_system)
    find_library(EVTLOG_SYSTEM_LIBRARY evtlog HINTS ${EVTLOG_LIBRARY_DIRS})
    mark_as_advanced(EVTLOG_SYSTEM_LIBRARY)
    set(evtlog_library ${EVTLOG_SYSTEM_LIBRARY})
    get_filename_component(EVTLOG_RUN_PATH ${evtlog_library} DIRECTORY)
    if(EVTLOG_RUN_PATH IN_LIST CMAKE_C_IMPLICIT_LINK_DIRECTORIES)
        set(EVTLOG_RUN_PATH "")
    endif()
else()
    file(GLOB evtlog_library ${evtlog_folder}/usr/lib/syslog-ng/libevtlog-*.so.?) # named as the loader will ask for it
    if(evtlog_library)
        get_filename_component(evtlog_name ${evtlog_library} NAME)
        set(EVTLOG_PRIVATE_FILE ${PROJECT_BINARY_DIR}/${evtlog_name})
        configure_file(${evtlog_library} ${EVTLOG_PRIVATE_FILE} COPYONLY)
        set(evtlog_library ${EVTLOG_PRIVATE_FILE})
        set(EVTLOG_LICENSE_FILE ${evtlog_folder}/usr/share/doc/syslog-ng-core/copyright)
        set(EVTLOG_INCLUDE_DIRS ${evtlog_folder}/usr/include/syslog-ng)
        set(EVTLOG_RUN_PATH "$ORIGIN")
    endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Evtlog REQUIRED_VARS evtlog_library REASON_FAILURE_MESSAGE
    "VANDREL_EVTLOG is ${VANDREL_EVTLOG}. pkg-config must know eventlog or syslog-ng (with what that requires), or else \
Debian's packages syslog-ng-core and syslog-ng-dev lie unpacked in a folder, as script/bootstrap does it")
if(Evtlog_FOUND AND NOT TARGET Evtlog::evtlog)
    add_library(Evtlog::evtlog INTERFACE IMPORTED)
    target_include_directories(Evtlog::evtlog INTERFACE
        ${EVTLOG_INCLUDE_DIRS} ${PROJECT_SOURCE_DIR}/compat/evtlog) # the latter for who has no GLib, so it comes last
    target_link_libraries(Evtlog::evtlog INTERFACE ${evtlog_library})
endif()
