# Compiler options of the whole project and the two helpers that every folder uses.

set(VELMO_SANITIZE "" CACHE STRING "Empty, \"address,undefined\" or \"thread\"")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fvisibility=hidden)
if(VELMO_SANITIZE)
  add_compile_options(-fsanitize=${VELMO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELMO_SANITIZE})
else()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  add_link_options(-Wl,-z,relro,-z,now)
endif()

find_package(Threads REQUIRED)

# velmo_gate(<target> <folder> [<header>...]): puts a subsystem's headers on the include path of a target and of
# whoever links it, as "<folder>/<Header>.h". Nothing else is on that path, so an include that goes against the
# direction of the dependencies does not build. Without headers the whole folder is linked in.
function(velmo_gate target folder)
  set(gate ${PROJECT_BINARY_DIR}/include/${target})
  file(REMOVE_RECURSE ${gate})
  if(ARGN)
    file(MAKE_DIRECTORY ${gate}/${folder})
    foreach(header IN LISTS ARGN)
      file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${folder}/${header} ${gate}/${folder}/${header} SYMBOLIC)
    endforeach()
  else()
    file(MAKE_DIRECTORY ${gate})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${folder} ${gate}/${folder} SYMBOLIC)
  endif()
  target_include_directories(${target} PUBLIC ${gate})
endfunction()

# velmo_library(<folder> [DEPENDS <folder>...]): one static library for a subsystem folder.
function(velmo_library name)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${name}/*.cpp)
  add_library(${name} STATIC ${sources})
  velmo_gate(${name} ${name})
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} Threads::Threads)
endfunction()
