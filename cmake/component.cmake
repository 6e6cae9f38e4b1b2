# zenbrak3_component(<folder> SOURCES ... [USES ...])
#
# One folder as an object library zenbrak3_<folder>, "/" written as "_", from which the host library
# and the module are put together. USES names the targets whose headers it needs: libraries of
# cmake/dependencies.cmake. Its own tree's headers it finds from the root; tools/check_layers says
# which of them it may use.
function(zenbrak3_component folder)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES")
    string(REPLACE "/" "_" name ${folder})
    add_library(zenbrak3_${name} OBJECT ${arg_SOURCES})
    target_include_directories(zenbrak3_${name} PRIVATE ${CMAKE_SOURCE_DIR})
    target_link_libraries(zenbrak3_${name} PRIVATE ${arg_USES} Threads::Threads)
endfunction()
