# What every target is compiled with. Warnings become errors in the presets (CMAKE_COMPILE_WARNING_AS_ERROR).
add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wformat=2 -Wimplicit-fallthrough -Wundef
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast> $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  -fstack-protector-strong)

# No path of the machine that builds stays in the binaries.
add_compile_options("-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")

# A symbol that is unique in the process pins its library there: dlclose would not unload the plug-in.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()

add_link_options(-Wl,-z,relro,-z,now)

# With these a single name selects the instrumentation in a preset; the flags stand here once.
set(ZAV_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")
option(ZAV_COVERAGE "Build the plug-in for line and branch coverage" OFF)
if(ZAV_SANITIZE)
  add_compile_options("-fsanitize=${ZAV_SANITIZE}" -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options("-fsanitize=${ZAV_SANITIZE}")
else()
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()
# clang's sanitizers stand in the program alone: a library leaves their names undefined.
if(NOT ZAV_SANITIZE OR CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_link_options(-Wl,--no-undefined)
endif()
if(ZAV_COVERAGE)
  # What is counted is the plug-in (see src/plugin/CMakeLists.txt); who links its objects needs the library for it.
  add_link_options(--coverage)
endif()
