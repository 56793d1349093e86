# What script/package packs: the module, its debug file, and the desk device where it is built.
set(debug_file "$<TARGET_FILE:tunnelbridge>.debug")
set(architecture amd64)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(architecture i386)
endif()
set(abi_record "${CMAKE_SOURCE_DIR}/abi/${architecture}.txt")

find_package(Python3 REQUIRED COMPONENTS Interpreter)
add_custom_target(packed)
add_custom_target(abi VERBATIM
  COMMAND Python3::Interpreter "${CMAKE_SOURCE_DIR}/abi/record.py" $<TARGET_FILE:tunnelbridge> "${debug_file}" "${abi_record}"
  COMMENT "Comparing the module's binary interface with ${abi_record}")
add_dependencies(abi tunnelbridge)
add_dependencies(packed abi)

# A debugger finds the file by the build id that it shares with the stripped module.
install(CODE "set(module_file \"$<TARGET_FILE:tunnelbridge>\")" COMPONENT debug)
install(CODE [[
  execute_process(COMMAND readelf --notes "${module_file}" OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
  if(NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
    message(FATAL_ERROR "${module_file} has no build id")
  endif()
  file(INSTALL "${module_file}.debug" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/debug/.build-id/${CMAKE_MATCH_1}"
    RENAME "${CMAKE_MATCH_2}.debug" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
]] COMPONENT debug)

# Debian's form of a changelog, dated by SOURCE_DATE_EPOCH; what changed is told once.
set(CPACK_PACKAGE_CONTACT "TunnelBridge maintainers <maintainers@tunnelbridge.invalid>")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE "${CMAKE_BINARY_DIR}/changelog" "tunnelbridge (${PROJECT_VERSION}) unstable; urgency=medium

  * See CHANGELOG.md.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
execute_process(COMMAND gzip --best --no-name --force changelog WORKING_DIRECTORY "${CMAKE_BINARY_DIR}" COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_COMPONENTS_ALL module debug)
if(TUNNELBRIDGE_DESK)
  list(APPEND CPACK_COMPONENTS_ALL desk)
  set(manual "${CMAKE_BINARY_DIR}/webapi-host.1.gz")
  add_custom_command(OUTPUT "${manual}" VERBATIM
    COMMAND "${CMAKE_SOURCE_DIR}/script/manual" $<TARGET_FILE:webapi-host> "${manual}"
    DEPENDS webapi-host "${CMAKE_SOURCE_DIR}/script/manual")
  add_custom_target(manual DEPENDS "${manual}")
  add_dependencies(packed manual)
  install(FILES "${manual}" DESTINATION share/man/man1 COMPONENT desk)
  install(FILES cmake/webapi-host.bash DESTINATION share/bash-completion/completions RENAME webapi-host COMPONENT desk)
  install(DIRECTORY docs DESTINATION share/doc/tunnelbridge-desk COMPONENT desk)
endif()
set(CPACK_STRIP_FILES ON)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEBUG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DESK_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_DESK_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DESK_PACKAGE_DEPENDS "tunnelbridge-module (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEBUG_PACKAGE_DEPENDS "tunnelbridge-module (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_MODULE_DESCRIPTION "web-API module for relay access
VEXA.Core.TunnelBridge.so, through which the administrator of a storage device
controls the device's relay access. The device's web server loads it.")
set(CPACK_COMPONENT_DEBUG_DESCRIPTION "debug file of the relay access module
What a debugger needs to show a crash of VEXA.Core.TunnelBridge.so with names,
files and lines. It is found by the module's build id.")
set(CPACK_COMPONENT_DESK_DESCRIPTION "desk device for the relay access module
webapi-host runs VEXA.Core.TunnelBridge.so without a device: device files in a
folder, a trace, faults on demand, a control server, and JSON-RPC over HTTP.")
foreach(component IN ITEMS module debug desk)
  string(TOUPPER ${component} upper)
  set(name tunnelbridge-${component})
  if(component STREQUAL "debug")
    set(name tunnelbridge-module-dbgsym)
  endif()
  install(FILES cmake/copyright CHANGELOG.md "${CMAKE_BINARY_DIR}/changelog.gz" DESTINATION share/doc/${name} COMPONENT ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_ARCHIVE_${upper}_FILE_NAME ${name}_${PROJECT_VERSION}_${architecture})
endforeach()
include(CPack)
