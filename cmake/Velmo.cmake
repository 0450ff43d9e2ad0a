# Compiler options of the whole project and the two helpers that every folder uses.

include(CheckCXXSourceCompiles)

set(VELMO_SANITIZE "" CACHE STRING "Empty, \"address,undefined\" or \"thread\"")

# velmo_best_option(<result> <option>...): the first of the options that the compiler and the C library take without
# a word; empty when none.
function(velmo_best_option result)
  set(${result} "" PARENT_SCOPE)
  foreach(option IN LISTS ARGN)
    string(MAKE_C_IDENTIFIER "VELMO_TAKES${option}" known)
    set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE ${option}")
    check_cxx_source_compiles("#include <cstdio>\nint main() { return std::puts(\"\") < 0; }" ${known})
    if(${known})
      set(${result} ${option} PARENT_SCOPE)
      return()
    endif()
  endforeach()
endfunction()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fvisibility=hidden)
if(VELMO_SANITIZE)
  add_compile_options(-fsanitize=${VELMO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELMO_SANITIZE})
else()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  velmo_best_option(fortify -D_FORTIFY_SOURCE=3 -D_FORTIFY_SOURCE=2)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-U_FORTIFY_SOURCE ${fortify})
  endif()
  velmo_best_option(branches -fcf-protection=full -mbranch-protection=standard) # x86, arm64
  add_compile_options(${branches})
  add_link_options(-Wl,-z,relro,-z,now)
endif()

# The same bytes from any folder: paths in debug symbols and texts of the compiler begin at the checkout.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)
add_link_options(-Wl,--build-id=sha1)

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
