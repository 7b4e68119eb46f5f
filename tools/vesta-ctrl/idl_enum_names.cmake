# Writes the member names of enumerations of the IDL as rows of .def files, so that the tool
# names an enumeration's values from its one definition, the IDL: for each enumeration in ENUMS
# (separated by commas), OUTPUT_DIR/<enumeration>.def gets one VEKX_IDL_ENUM_MEMBER(NAME) row per
# member, in the IDL's order. The values come from the generated interface header, so a row the
# header does not know fails to compile rather than printing a wrong name.
#
#   cmake -DIDL=vekxapi.idl -DOUTPUT_DIR=dir -DENUMS=eThreadState,eProcessAttr -P idl_enum_names.cmake
file(READ "${IDL}" idl)
get_filename_component(idl_name "${IDL}" NAME)
string(REPLACE "," ";" enums "${ENUMS}")
file(MAKE_DIRECTORY "${OUTPUT_DIR}")
foreach(enum IN LISTS enums)
  string(REGEX MATCH "enum ${enum} {([^}]*)}" block "${idl}")
  if(NOT block)
    message(FATAL_ERROR "${IDL} has no enumeration ${enum}")
  endif()
  # Comments inside the braces could look like members.
  string(REGEX REPLACE "//[^\n]*" "" body "${CMAKE_MATCH_1}")
  string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*[ \t]*=" members "${body}")
  if(NOT members)
    message(FATAL_ERROR "${IDL}: enumeration ${enum} has no members")
  endif()
  set(rows "// Generated from ${idl_name} by idl_enum_names.cmake: do not edit.\n")
  foreach(member IN LISTS members)
    string(REGEX REPLACE "[ \t]*=$" "" name "${member}")
    string(APPEND rows "VEKX_IDL_ENUM_MEMBER(${name})\n")
  endforeach()
  file(WRITE "${OUTPUT_DIR}/${enum}.def" "${rows}")
endforeach()
