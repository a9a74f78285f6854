# CPack post-build script (CPACK_POST_BUILD_SCRIPTS): mends what CPack's Debian generator gets
# wrong, before the packages are copied out.
# - A package that ships a shared library gets a postinst and a postrm that call ldconfig; Debian
#   replaced such calls by libc's ldconfig trigger (lintian: an error without the trigger, a
#   warning for the calls). The scripts, once checked to do nothing else, give way to the trigger.
# - A -dbgsym package lists its files in md5sums by their staging path, and has no doc folder;
#   Debian's point to the package they belong to (usr/share/doc/<package>-dbgsym -> <package>).
function(rebuild package tree)
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${package}
                    RESULT_VARIABLE result OUTPUT_QUIET)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "dpkg-deb --build ${package} failed")
    endif()
    file(REMOVE_RECURSE ${tree})
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
    set(tree ${CPACK_TOPLEVEL_DIRECTORY}/post-build)
    file(REMOVE_RECURSE ${tree})
    if(package MATCHES "/libquorlix[0-9]+_[^/]*\\.deb$")
        execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} RESULT_VARIABLE result)
        if(NOT result EQUAL 0)
            message(FATAL_ERROR "dpkg-deb --raw-extract ${package} failed")
        endif()
        foreach(script postinst postrm)
            if(NOT EXISTS ${tree}/DEBIAN/${script})
                continue()
            endif()
            file(READ ${tree}/DEBIAN/${script} text)
            string(REGEX REPLACE
                   "#!/bin/sh|set -e|if \\[ \"\\$1\" = \"[a-z]+\" \\]; then|ldconfig|fi|[ \t\n]" ""
                   rest "${text}")
            if(NOT rest STREQUAL "")
                message(FATAL_ERROR "the ${script} of ${package} does more than call ldconfig:\n"
                                    "${text}")
            endif()
            file(REMOVE ${tree}/DEBIAN/${script})
        endforeach()
        file(WRITE ${tree}/DEBIAN/triggers "activate-noawait ldconfig\n")
        rebuild(${package} ${tree})
    elseif(package MATCHES "/([^/_]+)-dbgsym_[^/]*\\.ddeb$")
        set(owner ${CMAKE_MATCH_1})
        execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} RESULT_VARIABLE result)
        if(NOT result EQUAL 0)
            message(FATAL_ERROR "dpkg-deb --raw-extract ${package} failed")
        endif()
        file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE ${tree} ${tree}/usr/*)
        set(sums "")
        foreach(file IN LISTS files)
            file(MD5 ${tree}/${file} sum)
            string(APPEND sums "${sum}  ${file}\n")
        endforeach()
        file(WRITE ${tree}/DEBIAN/md5sums "${sums}")
        file(MAKE_DIRECTORY ${tree}/usr/share/doc)
        file(CREATE_LINK ${owner} ${tree}/usr/share/doc/${owner}-dbgsym SYMBOLIC)
        rebuild(${package} ${tree})
    endif()
endforeach()
