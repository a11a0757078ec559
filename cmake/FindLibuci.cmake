# Finds the system's libuci, which no pkg-config file describes, and gives it as the target Libuci::libuci.
find_path(LIBUCI_INCLUDE_DIR uci.h)
find_library(LIBUCI_LIBRARY uci)
mark_as_advanced(LIBUCI_INCLUDE_DIR LIBUCI_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libuci REQUIRED_VARS LIBUCI_LIBRARY LIBUCI_INCLUDE_DIR)
if(Libuci_FOUND AND NOT TARGET Libuci::libuci)
    add_library(Libuci::libuci UNKNOWN IMPORTED)
    set_target_properties(Libuci::libuci PROPERTIES
        IMPORTED_LOCATION ${LIBUCI_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${LIBUCI_INCLUDE_DIR})
endif()
