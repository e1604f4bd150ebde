# Builds build/octave/shapewiener.mex from the core sources with Octave's
# compiler driver, against Octave's own mex.h. Only mexFunction is exported.

# The package tarball needs no mkoctfile here: pkg install compiles it.
include(${CMAKE_CURRENT_LIST_DIR}/OctavePackage.cmake)

find_program(SHAPEWIENER_MKOCTFILE mkoctfile)
if(NOT SHAPEWIENER_MKOCTFILE)
  message(STATUS "mkoctfile not found: the Octave MEX file is not built "
                 "(install Debian's liboctave-dev to build it)")
  return()
endif()
if(SHAPEWIENER_SANITIZE)
  message(STATUS "Sanitizer build: the Octave MEX file is not built")
  return()
endif()

set(SHAPEWIENER_OCTAVE_DIR ${CMAKE_BINARY_DIR}/octave)
set(SHAPEWIENER_OCTAVE_MEX ${SHAPEWIENER_OCTAVE_DIR}/shapewiener.mex)
set(SHAPEWIENER_OCTAVE_CXXFLAGS
    "-O2 -std=c++17 -ffp-contract=off -fno-fast-math -Wno-psabi -Wall -Wextra -Werror")
# The gateway is compiled against Octave's mex.h and linked with the same
# core library that every other front end links.
add_custom_command(
  OUTPUT ${SHAPEWIENER_OCTAVE_MEX}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${SHAPEWIENER_OCTAVE_DIR}
  COMMAND ${CMAKE_COMMAND} -E env "CXXFLAGS=${SHAPEWIENER_OCTAVE_CXXFLAGS}"
          ${SHAPEWIENER_MKOCTFILE} --mex -I${PROJECT_SOURCE_DIR}/include -I${PROJECT_SOURCE_DIR}/src
          ${PROJECT_SOURCE_DIR}/${SHAPEWIENER_GATEWAY_SOURCE} $<TARGET_FILE:shapewiener_core>
          -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/mex_exports.map
          -o ${SHAPEWIENER_OCTAVE_MEX}
  # The help text sits beside the MEX file: Octave reads a MEX file's help
  # from the .m file of the same name in its folder.
  COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/octave/shapewiener.m
          ${SHAPEWIENER_OCTAVE_DIR}/shapewiener.m
  DEPENDS ${PROJECT_SOURCE_DIR}/${SHAPEWIENER_GATEWAY_SOURCE} shapewiener_core
          ${SHAPEWIENER_CORE_HEADERS} ${PROJECT_SOURCE_DIR}/octave/shapewiener.m
          ${PROJECT_SOURCE_DIR}/cmake/mex_exports.map
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  COMMENT "Building the Octave MEX file octave/shapewiener.mex"
  VERBATIM)
add_custom_target(octave_mex ALL DEPENDS ${SHAPEWIENER_OCTAVE_MEX})

# The denoiser's gateway, shapewiener_denoise.mex, over the same library.
set(SHAPEWIENER_OCTAVE_DENOISE_MEX ${SHAPEWIENER_OCTAVE_DIR}/shapewiener_denoise.mex)
add_custom_command(
  OUTPUT ${SHAPEWIENER_OCTAVE_DENOISE_MEX}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${SHAPEWIENER_OCTAVE_DIR}
  COMMAND ${CMAKE_COMMAND} -E env "CXXFLAGS=${SHAPEWIENER_OCTAVE_CXXFLAGS}"
          ${SHAPEWIENER_MKOCTFILE} --mex -I${PROJECT_SOURCE_DIR}/include -I${PROJECT_SOURCE_DIR}/src
          ${PROJECT_SOURCE_DIR}/${SHAPEWIENER_DENOISE_GATEWAY_SOURCE} $<TARGET_FILE:shapewiener_core>
          -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/mex_exports.map
          -o ${SHAPEWIENER_OCTAVE_DENOISE_MEX}
  COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/octave/shapewiener_denoise.m
          ${PROJECT_SOURCE_DIR}/octave/shapewiener_estimate_noise.m ${SHAPEWIENER_OCTAVE_DIR}
  DEPENDS ${PROJECT_SOURCE_DIR}/${SHAPEWIENER_DENOISE_GATEWAY_SOURCE} shapewiener_core
          ${SHAPEWIENER_CORE_HEADERS} ${PROJECT_SOURCE_DIR}/octave/shapewiener_denoise.m
          ${PROJECT_SOURCE_DIR}/octave/shapewiener_estimate_noise.m
          ${PROJECT_SOURCE_DIR}/cmake/mex_exports.map
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  COMMENT "Building the Octave MEX file octave/shapewiener_denoise.mex"
  VERBATIM)
add_custom_target(octave_denoise_mex ALL DEPENDS ${SHAPEWIENER_OCTAVE_DENOISE_MEX})
