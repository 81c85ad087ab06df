# Debian packages of the installed components: run cpack, or scripts/package, which also checks them.
set(components library development)
if(TARGET quorvel_report)
  list(APPEND components report)
endif()

# Manual pages, compressed as distributions want them. Without a time: the same input, the same bytes.
find_program(QUORVEL_GZIP gzip REQUIRED)
function(add_compressed source name)
  add_custom_command(OUTPUT ${name}.gz
    COMMAND ${QUORVEL_GZIP} -9nc ${source} > ${name}.gz
    DEPENDS ${source} VERBATIM)
  set_property(DIRECTORY APPEND PROPERTY quorvel_compressed ${name}.gz)
endfunction()
add_compressed(${PROJECT_SOURCE_DIR}/docs/man/quorvel.3 quorvel.3)
add_compressed(${PROJECT_SOURCE_DIR}/docs/man/quorvel-report.1 quorvel-report.1)
add_compressed(${PROJECT_SOURCE_DIR}/packaging/changelog changelog)
get_property(compressed DIRECTORY PROPERTY quorvel_compressed)
add_custom_target(quorvel_documents ALL DEPENDS ${compressed})

install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quorvel.3.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
if(report IN_LIST components)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quorvel-report.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT report)
endif()

# What only a package has.
set(package_of_library libquorvel)
set(package_of_development libquorvel-dev)
set(package_of_report quorvel-report)
foreach(component IN LISTS components)
  install(FILES packaging/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_of_${component}}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libquorvel)
set(CPACK_PACKAGE_CONTACT "libquorvel maintainers <maintainers@libquorvel.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each component's description begins with its own

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libquorvel)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/symbols ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "watchdog inside a process - shared library
Work that must not hang is bracketed with a watch. When a watch expires, the
library writes an incident log with the kernel and user stacks of every thread,
calls back, and can end the process within a recovery limit.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquorvel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libquorvel (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "watchdog inside a process - development files
Headers for C and C++, pkg-config and CMake files and the manual page of
libquorvel, a watchdog for work that must not hang.")

set(CPACK_DEBIAN_REPORT_PACKAGE_NAME quorvel-report)
set(CPACK_DEBIAN_REPORT_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_REPORT_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_REPORT_DESCRIPTION "reader of the incident logs of libquorvel
Tells from incident logs why work hung: the reason, the threads that matter,
and which incidents are the same hang. Text, HTML and JSON.")

include(CPack)
