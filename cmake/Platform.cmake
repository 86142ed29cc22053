# The device platform that the plug-in is built against: three libraries, dpm (the plug-in interface and the policy
# storage), klay (the database wrapper) and dlog (the log). ZAV_PLATFORM_ROOT names the device's own; without it the
# stand-in in platform/ is built and used.
if(ZAV_PLATFORM_ROOT)
  foreach(library dpm klay dlog)
    find_library(ZAV_PLATFORM_${library} ${library}
      PATHS "${ZAV_PLATFORM_ROOT}/lib" "${ZAV_PLATFORM_ROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}"
      NO_DEFAULT_PATH REQUIRED)
    add_library(platform::${library} SHARED IMPORTED GLOBAL)
    set_target_properties(platform::${library} PROPERTIES
      IMPORTED_LOCATION "${ZAV_PLATFORM_${library}}"
      INTERFACE_INCLUDE_DIRECTORIES "${ZAV_PLATFORM_ROOT}/include")
  endforeach()
else()
  add_subdirectory(platform)
endif()
