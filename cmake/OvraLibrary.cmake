# How the shared objects are made, one library like the other.

# ovra_library_objects(<target>): the settings of a library's own sources.
function(ovra_library_objects target)
  ovra_target(${target})
  target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  # Calls within the library go straight to their function.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition)
  # One unique symbol, and dlclose() no longer unloads the library.
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  # The same sources give the same object, wherever they lie. The last prefix that fits counts.
  target_compile_options(${target} PRIVATE
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)
  if(OVRA_COVERAGE)
    set(kept_counts ${PROJECT_SOURCE_DIR}/tests/support/KeptCounts.cpp)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_sources(${target} PRIVATE ${kept_counts})
    set_source_files_properties(${kept_counts} PROPERTIES
      COMPILE_OPTIONS "-fvisibility=default;-fno-profile-arcs;-fno-test-coverage")
  endif()
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
endfunction()

# ovra_library(<target> <objects> <map>): a shared object of these objects, which exports what the
# version script says; or an archive of them.
function(ovra_library target objects map)
  ovra_target(${target})
  target_sources(${target} PRIVATE $<TARGET_OBJECTS:${objects}>)
  target_compile_features(${target} PUBLIC cxx_std_17)
  if(OVRA_LIBRARY_TYPE STREQUAL STATIC)
    return()
  endif()
  target_link_options(${target} PRIVATE
    LINKER:-z,relro,-z,now,-z,noexecstack,--as-needed,-Bsymbolic-functions)
  if(NOT OVRA_COVERAGE)
    target_link_options(${target} PRIVATE LINKER:--version-script=${map})
  endif()
  if(NOT OVRA_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  endif()
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${map})
endfunction()

# ovra_check_headers(<library> <header>...): the target all_verify_interface_header_sets compiles each
# of these headers alone.
function(ovra_check_headers library)
  if(CMAKE_VERSION VERSION_LESS 3.25)
    return()
  endif()
  add_library(${library}_headers INTERFACE)
  target_link_libraries(${library}_headers INTERFACE ${library})
  target_sources(${library}_headers INTERFACE
    FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARGN})
  set_target_properties(${library}_headers PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
endfunction()

# ovra_install_headers(<header>...): named from the top of the sources, each keeps its directory.
function(ovra_install_headers)
  foreach(header IN LISTS ARGN)
    get_filename_component(directory ${header} DIRECTORY)
    install(FILES ${PROJECT_SOURCE_DIR}/${header}
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${directory} COMPONENT development)
  endforeach()
endfunction()

# ovra_install_pkg_config(<template> <file>)
function(ovra_install_pkg_config template file)
  file(RELATIVE_PATH OVRA_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  configure_file(${template} ${file} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${file}
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
