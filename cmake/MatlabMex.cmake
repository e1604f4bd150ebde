# Builds the MATLAB MEX file through FindMatlab when MATLAB is installed.
# Without MATLAB this does nothing. libstdc++ and libgcc are linked
# statically: MATLAB ships an older libstdc++ than the system compiler's.
option(SHAPEWIENER_BUILD_MATLAB "Build the MATLAB MEX file when MATLAB is found" ON)
if(NOT SHAPEWIENER_BUILD_MATLAB OR SHAPEWIENER_SANITIZE)
  return()
endif()
find_package(Matlab QUIET COMPONENTS MX_LIBRARY)
if(NOT Matlab_FOUND)
  message(STATUS "MATLAB not found: the MATLAB MEX file is not built")
  return()
endif()
matlab_add_mex(NAME shapewiener_matlab SRC ${SHAPEWIENER_GATEWAY_SOURCE}
               OUTPUT_NAME shapewiener R2017b LINK_TO shapewiener_core)
target_include_directories(shapewiener_matlab PRIVATE ${PROJECT_SOURCE_DIR}/include
                           ${PROJECT_SOURCE_DIR}/src)
target_link_options(shapewiener_matlab PRIVATE -static-libstdc++ -static-libgcc)
set_target_properties(shapewiener_matlab PROPERTIES LIBRARY_OUTPUT_DIRECTORY
                                                   ${CMAKE_BINARY_DIR}/matlab)
# libut answers whether the user pressed Ctrl-C (utIsInterruptPending).
find_library(SHAPEWIENER_MATLAB_UT NAMES ut libut
             PATHS ${Matlab_ROOT_DIR}/bin/glnxa64 ${Matlab_ROOT_DIR}/bin/maci64
                   ${Matlab_ROOT_DIR}/bin/maca64 ${Matlab_ROOT_DIR}/extern/lib/win64/microsoft
             NO_DEFAULT_PATH)
set(_matlab_targets shapewiener_matlab)
# The denoiser's gateway, shapewiener_denoise, over the same library.
matlab_add_mex(NAME shapewiener_denoise_matlab SRC ${SHAPEWIENER_DENOISE_GATEWAY_SOURCE}
               OUTPUT_NAME shapewiener_denoise R2017b LINK_TO shapewiener_core)
target_include_directories(shapewiener_denoise_matlab PRIVATE ${PROJECT_SOURCE_DIR}/include
                           ${PROJECT_SOURCE_DIR}/src)
target_link_options(shapewiener_denoise_matlab PRIVATE -static-libstdc++ -static-libgcc)
set_target_properties(shapewiener_denoise_matlab PROPERTIES LIBRARY_OUTPUT_DIRECTORY
                                                           ${CMAKE_BINARY_DIR}/matlab)
list(APPEND _matlab_targets shapewiener_denoise_matlab)
foreach(_t ${_matlab_targets})
  if(SHAPEWIENER_MATLAB_UT)
    target_link_libraries(${_t} ${SHAPEWIENER_MATLAB_UT})
  else()
    target_compile_definitions(${_t} PRIVATE SHAPEWIENER_NO_MATLAB_INTERRUPT)
  endif()
endforeach()
