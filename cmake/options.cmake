# Warnings and shared build options live on one interface target that every
# project target links, so they are enforced everywhere rather than by habit.
add_library(tamsel_options INTERFACE)
target_compile_options(tamsel_options INTERFACE
  -Wall -Wextra -Wpedantic
  # g++ 12 reports coroutine frames as mismatched new/delete.
  -Wno-mismatched-new-delete
  # g++ 12 reports std::optional members as maybe-uninitialized after inlining.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
  # Designated initializers that leave members at their defaults are intended.
  -Wno-missing-field-initializers)
target_compile_definitions(tamsel_options INTERFACE
  BOOST_ASIO_SEPARATE_COMPILATION
  BOOST_BEAST_SEPARATE_COMPILATION
  BOOST_ASIO_NO_DEPRECATED)
target_link_libraries(tamsel_options INTERFACE Threads::Threads)

set(TAMSEL_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined")
if(TAMSEL_SANITIZE)
  target_compile_options(tamsel_options INTERFACE -fsanitize=${TAMSEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tamsel_options INTERFACE -fsanitize=${TAMSEL_SANITIZE})
endif()

# Lock annotations (base/thread_annotations.hpp) checked by clang's thread-safety analysis; any
# warning fails the build. g++ has no such analysis.
option(TAMSEL_THREAD_SAFETY "Check lock annotations with clang's -Wthread-safety, warnings as errors" OFF)
set(TAMSEL_THREAD_SAFETY_FLAGS -Wthread-safety -Werror)
if(TAMSEL_THREAD_SAFETY)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(tamsel_options INTERFACE ${TAMSEL_THREAD_SAFETY_FLAGS})
  else()
    message(FATAL_ERROR "TAMSEL_THREAD_SAFETY needs clang (CMAKE_CXX_COMPILER=clang++), not ${CMAKE_CXX_COMPILER_ID}")
  endif()
endif()
