# The C interface uses __stdcall on 32-bit Windows, whose C names GCC decorates as name@N. Hosts
# look the functions up by their plain names (GetProcAddress, C# DllImport, Delphi), so the DLL
# exports them undecorated (--kill-at). The import library that the linker writes alongside then
# lacks the decorated names that a C compiler's calls refer to; it is made again with dlltool from
# the linker's list of exports, decorated names in, plain names out.
function(veltrano_plain_stdcall_exports target)
  # GNU ld and dlltool (mingw-w64) only.
  if(NOT WIN32 OR NOT CMAKE_SIZEOF_VOID_P EQUAL 4 OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    return()
  endif()
  get_filename_component(_bin_dir ${CMAKE_CXX_COMPILER} DIRECTORY)
  string(REGEX REPLACE "g\\+\\+(-posix|-win32)?(\\.exe)?$" "dlltool" _dlltool_name
         ${CMAKE_CXX_COMPILER})
  get_filename_component(_dlltool_name ${_dlltool_name} NAME)
  find_program(VELTRANO_DLLTOOL NAMES ${_dlltool_name} dlltool HINTS ${_bin_dir} REQUIRED)
  set(_def ${CMAKE_CURRENT_BINARY_DIR}/${target}_exports.def)
  target_link_options(${target} PRIVATE -Wl,--kill-at -Wl,--output-def,${_def})
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -DDEF=${_def} -DDECORATED=${_def}.decorated
            -P ${PROJECT_SOURCE_DIR}/cmake/decorate_def.cmake
    COMMAND ${VELTRANO_DLLTOOL} --kill-at --input-def ${_def}.decorated
            --dllname $<TARGET_FILE_NAME:${target}> --output-lib $<TARGET_LINKER_FILE:${target}>
    VERBATIM)
endfunction()
