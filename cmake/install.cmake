# Where "cmake --install" puts files, and the Debian package that "cpack" builds from them.

include(GNUInstallDirs)

# Only the programs are installed, so don't build tests and benchmarks first.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
install(TARGETS ${programs})

file(GLOB manuals CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/man/*)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${manuals})
foreach(manual IN LISTS manuals)
    cmake_path(GET manual FILENAME page)
    cmake_path(GET manual EXTENSION LAST_ONLY section)
    string(REPLACE "." "man" directory ${section})
    file(ARCHIVE_CREATE OUTPUT ${CMAKE_BINARY_DIR}/${page}.gz PATHS ${manual}
        FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9 MTIME "1970-01-01 UTC")
    install(FILES ${CMAKE_BINARY_DIR}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/${directory})
endforeach()

install(FILES README.md CHANGELOG.md docs/corpses.md docs/how-it-counts.md docs/memgraph.md docs/memgraph.schema.json
    docs/report.schema.json
    DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(completions ${CMAKE_SOURCE_DIR}/completions)
# These shells look for a file named after the program.
foreach(program zorbel zorbel-capture)
    install(FILES ${completions}/zorbel.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program})
    install(FILES ${completions}/zorbel.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d RENAME ${program}.fish)
endforeach()
# Debian's zsh has one directory for completions from packages and another one for local installations.
install(CODE "
    set(directory site-functions)
    if(CMAKE_INSTALL_PREFIX STREQUAL /usr AND EXISTS /etc/debian_version)
        set(directory vendor-completions)
    endif()
    file(INSTALL \"${completions}/_zorbel\"
        DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/zsh/\${directory}\")")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The zorbel developers <zorbel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "shows how much memory processes are charged for, and who shares it")
set(CPACK_PACKAGE_DESCRIPTION
"zorbel reports how many bytes processes are charged for: the dirty and swapped
bytes of everything that they map. It shows these bytes by category, by program
and library, and by the exact group of processes that shares them. Memory that
several processes map counts once.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS jq)
include(CPack)
