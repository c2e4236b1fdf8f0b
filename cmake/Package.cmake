# What is installed beside the binary, and the Debian package of all of it.

set(PACKAGE_NAME kavophoto-backup)
set(PACKAGE_MAINTAINER "The kavophoto_backup authors <maintainers@kavophoto-backup.example>")
set(PACKAGE_DOCUMENTS ${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE_NAME})
set(PACKAGE_FILES ${CMAKE_CURRENT_BINARY_DIR}/package-files)

# Runs a command and returns what it prints, or ends the configuration.
function(package_output result)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C ${ARGN} OUTPUT_VARIABLE output
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(${result} "${output}" PARENT_SCOPE)
endfunction()

# Writes CHANGELOG.md in the form of a Debian changelog, and sets `release_date` to the date of its first entry.
function(package_changelog path release_date)
  file(STRINGS ${CMAKE_CURRENT_SOURCE_DIR}/CHANGELOG.md lines ENCODING UTF-8)
  set(text "")
  set(trailer "")
  set(first_date "")
  foreach(line IN LISTS lines)
    if(line MATCHES "^## ([0-9.]+) \\(([0-9-]+)\\)$")
      set(version ${CMAKE_MATCH_1})
      set(date ${CMAKE_MATCH_2})
      if(first_date STREQUAL "")
        if(NOT version VERSION_EQUAL PROJECT_VERSION)
          message(FATAL_ERROR "The newest entry of CHANGELOG.md is ${version}, the project's version ${PROJECT_VERSION}")
        endif()
        set(first_date ${date})
      endif()
      package_output(mail_date date --utc --rfc-email --date=${date})
      string(APPEND text "${trailer}${PACKAGE_NAME} (${version}) stable; urgency=medium\n\n")
      set(trailer "\n -- ${PACKAGE_MAINTAINER}  ${mail_date}\n\n")
    elseif(line MATCHES "^- (.*)$")
      string(APPEND text "  * ${CMAKE_MATCH_1}\n")
    elseif(line MATCHES "^  (.*)$")
      string(APPEND text "    ${CMAKE_MATCH_1}\n")
    endif()
  endforeach()
  file(WRITE ${path} "${text}${trailer}")
  set(${release_date} ${first_date} PARENT_SCOPE)
endfunction()

# Without name and time, so that the same text always gives the same bytes.
function(package_compress source target)
  execute_process(COMMAND gzip --best --no-name --stdout INPUT_FILE ${source} OUTPUT_FILE ${target}
                  COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md man/kavophoto_backup.8)
file(MAKE_DIRECTORY ${PACKAGE_FILES})
package_changelog(${PACKAGE_FILES}/changelog PACKAGE_DATE)
package_compress(${PACKAGE_FILES}/changelog ${PACKAGE_FILES}/changelog.gz)
package_compress(${CMAKE_CURRENT_SOURCE_DIR}/man/kavophoto_backup.8 ${PACKAGE_FILES}/kavophoto_backup.8.gz)

install(FILES ${PACKAGE_FILES}/kavophoto_backup.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES README.md packaging/copyright ${PACKAGE_FILES}/changelog.gz DESTINATION ${PACKAGE_DOCUMENTS})
install(DIRECTORY docs DESTINATION ${PACKAGE_DOCUMENTS})
install(FILES packaging/kavophoto-backup.default DESTINATION ${PACKAGE_DOCUMENTS}/examples)
install(FILES packaging/kavophoto_backup.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kavophoto_backup)
install(FILES packaging/kavophoto-backup.service packaging/kavophoto-backup.timer DESTINATION lib/systemd/system)
install(PROGRAMS packaging/nightly-backup DESTINATION libexec/${PACKAGE_NAME})
install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME ${PACKAGE_NAME})

# The build-id is a digest of the debug information too, which names the folder of the sources.
if(NOT KAVOPHOTO_TESTS)
  foreach(target kavophoto kavophoto_backup)
    target_compile_options(${target} PRIVATE -ffile-prefix-map=${CMAKE_CURRENT_SOURCE_DIR}=.
                                             -ffile-prefix-map=${CMAKE_CURRENT_BINARY_DIR}=.)
  endforeach()
endif()

# All files of the package carry the date of the release.
package_output(PACKAGE_EPOCH date --utc --date=${PACKAGE_DATE} +%s)
file(WRITE ${PACKAGE_FILES}/environment.cmake "set(ENV{SOURCE_DATE_EPOCH} ${PACKAGE_EPOCH})\n")
set(CPACK_PROJECT_CONFIG_FILE ${PACKAGE_FILES}/environment.cmake)

set(CPACK_VERBATIM_VARIABLES YES)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "back up, restore and merge the database of a photo application")
set(CPACK_PACKAGE_DESCRIPTION
    "kavophoto_backup backs up, restores, exports and imports the PostgreSQL
database \"photo\" of a photo-sharing application on a storage appliance, and
merges one such database into another. Rows are matched by name and path,
never by number.
.
The package brings a systemd service and a timer for a nightly backup, which
are not enabled.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The oldest versions are those of the release whose PostgreSQL is the oldest that is supported.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "postgresql-client (>= 11), tar (>= 1.30), gzip (>= 1.9), coreutils (>= 8.30)")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "postgresql (>= 11)")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/packaging/prerm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
