# Header-only libraries that Debian installs for the host, made usable by a cross build: the
# library's folder under /usr/include is copied into the build tree at configure time and an
# imported target points at that copy. /usr/include itself never joins the cross compiler's
# include path, where its C library headers would shadow MinGW's.
set(VEKX_HOST_HEADERS_DIR ${CMAKE_BINARY_DIR}/host-headers)

# vekx_host_header_only(<imported target> <folder under /usr/include> <a header that must exist>)
function(vekx_host_header_only target folder probe)
  if(TARGET ${target})
    return()
  endif()
  set(source /usr/include/${folder})
  if(NOT EXISTS /usr/include/${probe})
    message(FATAL_ERROR "${target}: /usr/include/${probe} is missing: run scripts/install-deps.sh")
  endif()
  file(REMOVE_RECURSE ${VEKX_HOST_HEADERS_DIR}/${folder})
  file(COPY ${source} DESTINATION ${VEKX_HOST_HEADERS_DIR})
  # Configure again when the package changes.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS /usr/include/${probe})
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES
                                             ${VEKX_HOST_HEADERS_DIR})
endfunction()
