# Language level, warnings and sanitizers of our own targets. None of it reaches a consumer.
function(ovra_target target)
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wold-style-cast -Wcast-align -Wformat=2 -Wnull-dereference
    $<$<CXX_COMPILER_ID:GNU>:-Wcast-align=strict -Wduplicated-cond -Wlogical-op -Wno-psabi>
    $<$<BOOL:${OVRA_WARNINGS_AS_ERRORS}>:-Werror>)
  # A cast that a 32-bit target needs may do nothing on a 64-bit one, and the other way round.
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wuseless-cast>)
  endif()
  if(OVRA_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${OVRA_SANITIZE} -fno-omit-frame-pointer
      $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
    target_link_options(${target} PRIVATE -fsanitize=${OVRA_SANITIZE})
  endif()
endfunction()
