# The public interfaces are defined once, in include/vekxapi/vekxapi.idl. widl turns it into the
# C++ interface header on both platforms and, for Windows, into the type library that the DLL
# carries as a resource. The IDL includes the result-code table, so that it is regenerated when
# either changes.
find_program(VEKX_WIDL NAMES widl-stable widl REQUIRED)
find_path(VEKX_WIDL_IMPORTS oaidl.idl PATHS /usr/include/wine/wine/windows
          NO_CMAKE_FIND_ROOT_PATH REQUIRED)

set(VEKX_IDL ${PROJECT_SOURCE_DIR}/include/vekxapi/vekxapi.idl)
set(VEKX_GENERATED_INCLUDE ${PROJECT_BINARY_DIR}/generated/include)
set(VEKX_INTERFACE_HEADER ${VEKX_GENERATED_INCLUDE}/vekxapi/vekxapi.h)
set(VEKX_TYPE_LIBRARY ${PROJECT_BINARY_DIR}/generated/vekxapi.tlb)
set(VEKX_WIDL_FLAGS -I${VEKX_WIDL_IMPORTS} -I${PROJECT_SOURCE_DIR}/include --win64)

file(MAKE_DIRECTORY ${VEKX_GENERATED_INCLUDE}/vekxapi)
add_custom_command(
  OUTPUT ${VEKX_INTERFACE_HEADER}
  COMMAND ${VEKX_WIDL} ${VEKX_WIDL_FLAGS} -h -o ${VEKX_INTERFACE_HEADER} ${VEKX_IDL}
  DEPENDS ${VEKX_IDL} ${PROJECT_SOURCE_DIR}/include/vekxapi/result_codes.def
  COMMENT "Generating the interface header from vekxapi.idl"
  VERBATIM)
set(VEKX_IDL_OUTPUTS ${VEKX_INTERFACE_HEADER})
if(WIN32)
  add_custom_command(
    OUTPUT ${VEKX_TYPE_LIBRARY}
    COMMAND ${VEKX_WIDL} ${VEKX_WIDL_FLAGS} -t -o ${VEKX_TYPE_LIBRARY} ${VEKX_IDL}
    DEPENDS ${VEKX_IDL} ${PROJECT_SOURCE_DIR}/include/vekxapi/result_codes.def
    COMMENT "Generating the type library from vekxapi.idl"
    VERBATIM)
  list(APPEND VEKX_IDL_OUTPUTS ${VEKX_TYPE_LIBRARY})
endif()
add_custom_target(vekx_idl DEPENDS ${VEKX_IDL_OUTPUTS})

# What compiling against the interface header needs: the generated folder, the public headers
# and, on POSIX, the stand-ins for the Windows headers that the generated header includes.
add_library(vekx_interfaces INTERFACE)
add_dependencies(vekx_interfaces vekx_idl)
target_include_directories(vekx_interfaces SYSTEM INTERFACE ${VEKX_GENERATED_INCLUDE})
target_include_directories(vekx_interfaces INTERFACE ${PROJECT_SOURCE_DIR}/include)
# The generated interfaces have public non-virtual destructors, as COM interfaces do (a virtual
# one would add a vtable slot); the classes that implement them are released, never deleted
# through them.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  target_compile_options(vekx_interfaces INTERFACE -Wno-non-virtual-dtor)
endif()
if(NOT WIN32)
  target_include_directories(vekx_interfaces INTERFACE
                             ${PROJECT_SOURCE_DIR}/include/vekxapi/compat)
endif()
