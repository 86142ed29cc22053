# Where things are installed that GNUInstallDirs has no word for, and how programs find their libraries there. The
# components: plugin, client (the library), development, python, programs; host and platform, on demand alone.
set(ZAV_PLUGIN_DIR "${CMAKE_INSTALL_LIBDIR}/dpm/plugins" CACHE STRING "Where the daemon looks for its plug-ins")
set(ZAV_PYTHON_DIR "lib/python3/dist-packages" CACHE STRING "Where Python looks for its modules")
set(ZAV_TMPFILES_DIR "lib/tmpfiles.d" CACHE STRING "Where what is to be made in /tmp at the start is written down")
set(ZAV_PLATFORM_LIBDIR "${CMAKE_INSTALL_LIBDIR}" CACHE STRING "Where the stand-in platform's libraries go")
set(ZAV_PLATFORM_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}" CACHE STRING "Where the stand-in platform's headers go")

# zav_find_beside(TARGET DIRECTORY): the installed program finds the libraries of that directory, wherever the prefix is.
function(zav_find_beside target directory)
  set(bin "${CMAKE_INSTALL_FULL_BINDIR}")
  cmake_path(APPEND CMAKE_INSTALL_PREFIX "${directory}" OUTPUT_VARIABLE library)
  # There the loader looks by itself.
  if(library IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    return()
  endif()
  file(RELATIVE_PATH way "${bin}" "${library}")
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${way}")
endfunction()
