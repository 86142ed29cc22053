# The device platform that the plug-in is built against: three libraries, dpm (the plug-in interface and the policy
# storage), klay (the database wrapper) and dlog (the log). ZAV_PLATFORM_ROOT names the device's own: the prefix where
# it is installed, or the root of a file system that has it in usr/. Without it the stand-in in platform/ is built.
if(NOT ZAV_PLATFORM_ROOT)
  add_subdirectory(platform)
  return()
endif()

if(NOT IS_ABSOLUTE "${ZAV_PLATFORM_ROOT}")
  message(FATAL_ERROR "ZAV_PLATFORM_ROOT wants an absolute path, not ${ZAV_PLATFORM_ROOT}")
elseif(NOT IS_DIRECTORY "${ZAV_PLATFORM_ROOT}")
  message(FATAL_ERROR "ZAV_PLATFORM_ROOT: there is no directory ${ZAV_PLATFORM_ROOT}")
endif()

# A cross compiler's own root does not stand before these paths, and another root does not get the last one's finds.
set(platform_search NO_CACHE NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)

function(zav_find_platform_headers out)
  foreach(header dpm/AbstractDPluginProvider.h dpm/DPluginPolicy.h dpm/PolicyStorage.h klay/Exception.h
                 klay/database/Connection.h klay/database/Statement.h dlog/dlog.h)
    unset(found)
    find_path(found ${header} PATHS "${ZAV_PLATFORM_ROOT}" PATH_SUFFIXES include usr/include ${platform_search})
    if(NOT found)
      message(FATAL_ERROR "ZAV_PLATFORM_ROOT: ${ZAV_PLATFORM_ROOT} lacks the header ${header}, in include/ or "
                          "usr/include/")
    endif()
    list(APPEND directories "${found}")
  endforeach()
  list(REMOVE_DUPLICATES directories)
  set(${out} "${directories}" PARENT_SCOPE)
endfunction()

function(zav_find_platform_library out name)
  foreach(prefix lib usr/lib lib64 usr/lib64)
    list(APPEND places ${prefix}/${CMAKE_LIBRARY_ARCHITECTURE} ${prefix})
  endforeach()
  unset(found)
  find_library(found NAMES lib${name}.so PATHS "${ZAV_PLATFORM_ROOT}" PATH_SUFFIXES ${places} ${platform_search})
  if(NOT found)
    message(FATAL_ERROR "ZAV_PLATFORM_ROOT: ${ZAV_PLATFORM_ROOT} lacks the library lib${name}.so, in lib/, lib64/ or "
                        "lib/${CMAKE_LIBRARY_ARCHITECTURE}/, there or in usr/")
  endif()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

zav_find_platform_headers(platform_includes)
foreach(name dpm klay dlog)
  zav_find_platform_library(platform_library ${name})
  add_library(platform::${name} SHARED IMPORTED GLOBAL)
  # A library without a soname would leave its path on this machine in the plug-in.
  set_target_properties(platform::${name} PROPERTIES
    IMPORTED_LOCATION "${platform_library}"
    IMPORTED_NO_SONAME TRUE
    INTERFACE_INCLUDE_DIRECTORIES "${platform_includes}")
endforeach()
