# Flags of every target, and room(): one static library a folder.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_AUTOMOC ON)
set(CMAKE_AUTORCC ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g1")

option(SPEAKERD_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

option(SPEAKERD_FUZZ "Build the fuzz targets of the parsers (clang)" OFF)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
add_compile_definitions(QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_FOREACH
                        QT_DEPRECATED_WARNINGS SPEAKERD_VERSION="${PROJECT_VERSION}")
if(SPEAKERD_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(SPEAKERD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

# room(NAME SOURCES... LINKS...): the library NAME of this folder. Others include its headers as "folder/header.h", and
# only those that link it see them: each room has a tree of its own with links to its headers and to nothing else.
function(room name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  file(RELATIVE_PATH folder ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  set(tree ${CMAKE_BINARY_DIR}/rooms/${name})
  file(GLOB headers RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  file(REMOVE_RECURSE ${tree}/${folder})
  file(MAKE_DIRECTORY ${tree}/${folder})
  foreach(header ${headers})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${tree}/${folder}/${header} SYMBOLIC)
  endforeach()
  if(ARG_SOURCES)
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${tree})
    target_link_libraries(${name} PUBLIC ${ARG_LINKS})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${tree})
    target_link_libraries(${name} INTERFACE ${ARG_LINKS})
  endif()
endfunction()
