# The layers of the program. Each folder of sources in zorbel/ is a separate library.

# add_layer(FOLDER [LAYER...] [LIBRARIES LIBRARY...]): the sources directly in zorbel/FOLDER, linked with lower layers and
# with external libraries. Add a layer before those above it. With the tests, a program is built from the whole layer
# and those below it: it fails to link if the layer uses anything else. tests/check-includes checks the headers against
# the same list.
function(add_layer folder)
    cmake_parse_arguments(PARSE_ARGV 1 layer "" "" "LIBRARIES")
    string(REPLACE "/" "_" name ${folder})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/zorbel/${folder}/*.cpp)
    set(scope PUBLIC)
    if(sources)
        add_library(zorbel_${name} STATIC ${sources})
    else()
        set(scope INTERFACE)
        add_library(zorbel_${name} INTERFACE)
    endif()
    target_link_libraries(zorbel_${name} ${scope} zorbel_options ${layer_LIBRARIES})
    foreach(below IN LISTS layer_UNPARSED_ARGUMENTS)
        string(REPLACE "/" "_" below ${below})
        if(NOT TARGET zorbel_${below})
            message(FATAL_ERROR "${folder} builds on ${below}, which is no layer below it")
        endif()
        target_link_libraries(zorbel_${name} ${scope} zorbel_${below})
    endforeach()
    list(JOIN layer_UNPARSED_ARGUMENTS " " layers_below)
    set_property(GLOBAL APPEND_STRING PROPERTY ZORBEL_LAYERS "${folder}: ${layers_below}\n")
    if(ZORBEL_TESTS AND sources)
        add_executable(link-${name} ${CMAKE_SOURCE_DIR}/cmake/empty-program.cpp)
        set_target_properties(link-${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/layers)
        target_link_libraries(link-${name} PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,zorbel_${name}>")
    endif()
endfunction()

# Writes the list of layers for tests/check-includes, one line "FOLDER: LAYERS BELOW" for each layer.
function(write_layers file)
    get_property(layers GLOBAL PROPERTY ZORBEL_LAYERS)
    file(WRITE ${file} "${layers}")
endfunction()
