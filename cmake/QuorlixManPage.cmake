# quorlix_install_man_page(<page> <component>): installs <page>, a section 1 roff file of the build
# tree (written by configure_file or a custom command), as <mandir>/man1/<name>.gz. gzip -9n stores
# no name or time, so the same page always compresses to the same bytes, as Debian wants.
include_guard(GLOBAL)
find_program(QUORLIX_GZIP gzip REQUIRED)

function(quorlix_install_man_page page component)
    get_filename_component(name ${page} NAME)
    add_custom_command(OUTPUT ${page}.gz
        COMMAND ${QUORLIX_GZIP} -9n -c ${page} > ${page}.gz
        DEPENDS ${page} VERBATIM)
    string(MAKE_C_IDENTIFIER ${name} target)
    add_custom_target(${target}_gz ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()
