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
if(SHAPEWIENER_MATLAB_UT)
  target_link_libraries(shapewiener_matlab ${SHAPEWIENER_MATLAB_UT})
else()
  target_compile_definitions(shapewiener_matlab PRIVATE SHAPEWIENER_NO_MATLAB_INTERRUPT)
endif()
