# The Octave package shapewiener-<version>.tar.gz, built on request:
#   cmake --build <build dir> --target octave_package
# writes <build dir>/octave/shapewiener-<version>.tar.gz with
# octave/make_package.sh. Install it in Octave with
#   pkg install <build dir>/octave/shapewiener-<version>.tar.gz
# which compiles the MEX file with that Octave's mkoctfile; so building the
# tarball itself needs only bash, tar and gzip.
find_program(SHAPEWIENER_BASH bash)
find_program(SHAPEWIENER_TAR tar)
find_program(SHAPEWIENER_GZIP gzip)
if(NOT SHAPEWIENER_BASH OR NOT SHAPEWIENER_TAR OR NOT SHAPEWIENER_GZIP)
  message(STATUS "bash, tar or gzip not found: no octave_package target")
  return()
endif()

set(SHAPEWIENER_OCTAVE_PACKAGE
    ${CMAKE_BINARY_DIR}/octave/shapewiener-${PROJECT_VERSION}.tar.gz)
set(_package_inputs "")
foreach(_s ${SHAPEWIENER_CORE_SOURCES})
  list(APPEND _package_inputs ${PROJECT_SOURCE_DIR}/${_s})
endforeach()
list(APPEND _package_inputs ${SHAPEWIENER_CORE_HEADERS}
     ${PROJECT_SOURCE_DIR}/${SHAPEWIENER_GATEWAY_SOURCE} ${PROJECT_SOURCE_DIR}/src/sources.txt
     ${PROJECT_SOURCE_DIR}/${SHAPEWIENER_DENOISE_GATEWAY_SOURCE}
     ${PROJECT_SOURCE_DIR}/octave/shapewiener_denoise.m
     ${PROJECT_SOURCE_DIR}/octave/shapewiener_estimate_noise.m
     ${PROJECT_SOURCE_DIR}/octave/make_package.sh
     ${PROJECT_SOURCE_DIR}/octave/shapewiener.m
     ${PROJECT_SOURCE_DIR}/octave/package/DESCRIPTION.in
     ${PROJECT_SOURCE_DIR}/octave/package/INDEX
     ${PROJECT_SOURCE_DIR}/octave/package/pre_install.m
     ${PROJECT_SOURCE_DIR}/VERSION
     ${PROJECT_SOURCE_DIR}/octave/package/Makefile
     ${PROJECT_SOURCE_DIR}/cmake/mex_exports.map
     ${PROJECT_SOURCE_DIR}/LICENSE)

add_custom_command(
  OUTPUT ${SHAPEWIENER_OCTAVE_PACKAGE}
  COMMAND ${SHAPEWIENER_BASH} ${PROJECT_SOURCE_DIR}/octave/make_package.sh
          ${CMAKE_BINARY_DIR}/octave ${PROJECT_VERSION}
  DEPENDS ${_package_inputs}
  COMMENT "Building the Octave package octave/shapewiener-${PROJECT_VERSION}.tar.gz"
  VERBATIM)
add_custom_target(octave_package DEPENDS ${SHAPEWIENER_OCTAVE_PACKAGE})
