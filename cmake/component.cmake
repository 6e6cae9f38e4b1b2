# zenbrak3_component(<folder> SOURCES ... [USES ...])
#
# One folder as an object library zenbrak3_<folder>, "/" written as "_", from which the host library
# and the module are put together. USES names the targets whose headers it needs: libraries of
# cmake/dependencies.cmake. Its own tree's headers it finds from the root; tools/check_layers says
# which of them it may use.
function(zenbrak3_component folder)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES")
    string(REPLACE "/" "_" name ${folder})
    if(ZENBRAK3_MUTANTS AND folder MATCHES "^(gaussdb|xbsa)/")
        zenbrak3_mutants(${folder} arg_SOURCES)
    endif()
    add_library(zenbrak3_${name} OBJECT ${arg_SOURCES})
    target_include_directories(zenbrak3_${name} PRIVATE ${CMAKE_SOURCE_DIR})
    target_link_libraries(zenbrak3_${name} PRIVATE ${arg_USES} Threads::Threads)
endfunction()

# zenbrak3_mutants(<folder> <variable>)
#
# Replaces the sources of a folder, in the variable, by copies whose functions can be told to do nothing.
function(zenbrak3_mutants folder variable)
    set(copies)
    foreach(source IN LISTS ${variable})
        set(original ${CMAKE_SOURCE_DIR}/${folder}/${source})
        set(copy ${CMAKE_BINARY_DIR}/mutated/${folder}/${source})
        add_custom_command(OUTPUT ${copy} BYPRODUCTS ${copy}.json
            DEPENDS ${original} ${CMAKE_SOURCE_DIR}/tools/mutate_source
            COMMAND ${CMAKE_SOURCE_DIR}/tools/mutate_source ${original} ${copy} ${copy}.json
                -std=c++20 -D_GNU_SOURCE -I${CMAKE_SOURCE_DIR})
        list(APPEND copies ${copy})
    endforeach()
    set_source_files_properties(${copies} PROPERTIES
        COMPILE_OPTIONS "-include;${CMAKE_SOURCE_DIR}/tests/support/mutant.h"
        COMPILE_DEFINITIONS "ZENBRAK3_MUTANTS_DIR=\"${CMAKE_BINARY_DIR}\"")
    set(${variable} ${copies} PARENT_SCOPE)
endfunction()
