# Debian packages of the install components, made by `cpack` in the build directory.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr, so that the libraries go where Debian keeps them.

if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf" OR
    CMAKE_CXX_COMPILER MATCHES "arm-linux-gnueabihf")
  set(OVRA_DEBIAN_ARCHITECTURE armhf)
elseif(CMAKE_CXX_COMPILER MATCHES "aarch64-linux-gnu")
  set(OVRA_DEBIAN_ARCHITECTURE arm64)
else()
  execute_process(COMMAND dpkg --print-architecture
    OUTPUT_VARIABLE OVRA_DEBIAN_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
set(OVRA_RUNTIME_PACKAGE lib${PROJECT_NAME}${PROJECT_VERSION_MAJOR})
set(OVRA_EXTRA_PACKAGE lib${PROJECT_NAME}-extra${PROJECT_VERSION_MAJOR})
set(OVRA_DEVELOPMENT_PACKAGE lib${PROJECT_NAME}-dev)
set(OVRA_TOOLS_PACKAGE ovra-tools)
set(runtimes runtime) # What a device needs.
if(OVRA_BUILD_EXTRA)
  list(APPEND runtimes extra)
endif()
set(others development)
if(TARGET ovra-manifest)
  list(APPEND others tools)
endif()

# --- what Debian wants to find beside the files themselves

set(staging ${PROJECT_BINARY_DIR}/packaging)
find_program(OVRA_GZIP gzip)
if(NOT OVRA_GZIP OR OVRA_LIBRARY_TYPE STREQUAL STATIC)
  return()
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog ${staging}/changelog COPYONLY)
execute_process(COMMAND ${OVRA_GZIP} --best --no-name --stdout ${staging}/changelog
  OUTPUT_FILE ${staging}/changelog.Debian.gz RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "gzip cannot pack the change log: ${failed}")
endif()
file(WRITE ${staging}/triggers "activate-noawait ldconfig\n")

foreach(component IN LISTS runtimes others)
  string(TOUPPER ${component} upper)
  set(package ${OVRA_${upper}_PACKAGE})
  set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package})
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${staging}/changelog.Debian.gz
    DESTINATION ${documents} COMPONENT ${component}_documents EXCLUDE_FROM_ALL)
  set(overrides ${CMAKE_CURRENT_LIST_DIR}/${package}.lintian-overrides)
  if(EXISTS ${overrides})
    install(FILES ${overrides} RENAME ${package}
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
      COMPONENT ${component}_documents EXCLUDE_FROM_ALL)
  endif()
  set(CPACK_COMPONENT_${upper}_GROUP ${component})
  set(CPACK_COMPONENT_${upper}_DOCUMENTS_GROUP ${component})
  list(APPEND components ${component} ${component}_documents)
endforeach()
install(DIRECTORY docs/guide docs/examples
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${OVRA_DEVELOPMENT_PACKAGE}
  COMPONENT development_documents EXCLUDE_FROM_ALL)
install(FILES examples/tasks.cpp examples/logging.cpp examples/files.cpp
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${OVRA_DEVELOPMENT_PACKAGE}/examples/longer
  COMPONENT development_documents EXCLUDE_FROM_ALL)

# --- the packages

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ovra)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # Each package has a first line of its own.
set(CPACK_PACKAGE_VENDOR "the ovra maintainers")
set(CPACK_PACKAGE_CONTACT "the ovra maintainers <maintainers@ovra.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${OVRA_DEBIAN_ARCHITECTURE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(full_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(about "A prioritised task executor, levelled logging and a file-system layer for
applications in C++17, on nothing but the standard library and the C library.")
set(RUNTIME_LIBRARY libovra)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"support library for applications on embedded Linux
${about}

This package holds the shared object that such applications need to run.")

set(EXTRA_LIBRARY libovra-extra)
set(EXTRA_DEPENDS "${OVRA_RUNTIME_PACKAGE} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_EXTRA_DESCRIPTION
"files and logs that last in the field, for applications on embedded Linux
Files that survive a power cut, log files that rotate and outlast a full disk,
and why an operation on a file failed. For applications in C++17, on top of
ovra.

This package holds the shared object that such applications need to run.")

set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
# Where the packages of the target's libraries are not installed, nobody can be asked for the
# versions: then they are Debian's names with the least versions that the symbols ask for.
foreach(component IN LISTS runtimes)
  string(TOUPPER ${component} upper)
  set(library ${${upper}_LIBRARY})
  set(package ${OVRA_${upper}_PACKAGE})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/shlibs.in ${staging}/${component}/shlibs @ONLY)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA
    ${staging}/triggers ${staging}/${component}/shlibs)
  set(depends ${${upper}_DEPENDS})
  if(CMAKE_CROSSCOMPILING)
    list(PREPEND depends "libc6 (>= 2.34)" "libgcc-s1 (>= 3.5)" "libstdc++6 (>= 12)")
  else()
    set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS ON)
  endif()
  list(JOIN depends ", " CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS)
  list(APPEND exactly "${package} (= ${full_version})")
endforeach()
list(JOIN exactly ", " exactly)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${OVRA_DEVELOPMENT_PACKAGE})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${exactly}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"support library for applications on embedded Linux: development files
${about}

This package holds the headers, what CMake and pkg-config need to find them,
and the guide with its examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${OVRA_TOOLS_PACKAGE})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${OVRA_RUNTIME_PACKAGE} (>= ${PROJECT_VERSION})")
if(OVRA_BUILD_EXTRA)
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    ", ${OVRA_EXTRA_PACKAGE} (>= ${PROJECT_VERSION})")
endif()
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"SHA-256 manifests of directory trees
ovra-manifest hashes the files of directory trees in the background, and checks
them against a manifest in the format of sha256sum, once or as a service that
watches over them. It is an application of the library ovra.")

include(CPack)
