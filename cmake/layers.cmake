# The layers of the program. Each folder of sources below zorbel/ is a library of its own.

# add_layer(FOLDER [LAYER...] [LIBRARIES LIBRARY...]): the sources right in zorbel/FOLDER, linked with the layers that they
# build on and with libraries from elsewhere. A layer must be there before the ones above it. With the tests comes a
# program that links all of the layer with nothing but what is below it: it fails to link when the layer uses anything
# else. tests/check-includes holds the headers to the same list.
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

# Writes the list of layers for tests/check-includes, a line "FOLDER: LAYERS BELOW" for each.
function(write_layers file)
    get_property(layers GLOBAL PROPERTY ZORBEL_LAYERS)
    file(WRITE ${file} "${layers}")
endfunction()
