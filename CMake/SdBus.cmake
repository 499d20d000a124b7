# The library that sd-bus comes from, as the target ostrel_sdbus: systemd's own, or one of those that were made of it for
# systems without systemd. OSTREL_SDBUS names it as pkg-config does; "auto" takes the first that there is.
#
# Sources include <systemd/sd-bus.h>. Where the library has the header elsewhere, a file of that name leads to it.
find_package(PkgConfig REQUIRED)

set(OSTREL_SDBUS_KNOWN libsystemd libelogind basu)
set(OSTREL_SDBUS auto CACHE STRING "Where sd-bus comes from: auto, libsystemd, libelogind or basu")
set_property(CACHE OSTREL_SDBUS PROPERTY STRINGS auto ${OSTREL_SDBUS_KNOWN})

if(OSTREL_SDBUS STREQUAL "auto")
  pkg_search_module(SDBUS IMPORTED_TARGET GLOBAL ${OSTREL_SDBUS_KNOWN})
elseif(OSTREL_SDBUS IN_LIST OSTREL_SDBUS_KNOWN)
  pkg_check_modules(SDBUS IMPORTED_TARGET GLOBAL ${OSTREL_SDBUS})
else()
  message(FATAL_ERROR "OSTREL_SDBUS is '${OSTREL_SDBUS}'; known are auto, libsystemd, libelogind and basu")
endif()
if(NOT SDBUS_FOUND)
  message(FATAL_ERROR "No sd-bus: pkg-config knows none of what OSTREL_SDBUS=${OSTREL_SDBUS} stands for "
    "(packages libsystemd-dev, libelogind-dev, basu)")
endif()

add_library(ostrel_sdbus INTERFACE)
target_link_libraries(ostrel_sdbus INTERFACE PkgConfig::SDBUS)

# basu has sd-bus and nothing else of systemd: the daemon then notifies no service manager.
if(SDBUS_LINK_LIBRARIES MATCHES "basu")
  file(WRITE ${CMAKE_BINARY_DIR}/sdbus/systemd/sd-bus.h "#include <basu/sd-bus.h>\n")
  target_include_directories(ostrel_sdbus BEFORE INTERFACE ${CMAKE_BINARY_DIR}/sdbus)
else()
  target_compile_definitions(ostrel_sdbus INTERFACE OSTREL_HAS_SD_DAEMON)
endif()
