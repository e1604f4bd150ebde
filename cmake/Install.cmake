# `cmake --install <build> --prefix P`: the command line and its man page,
# the public headers, the library with a CMake package
# (find_package(shapewiener CONFIG) gives shapewiener::shapewiener) and a
# pkg-config file, and the Octave MEX files with their help texts.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SHAPEWIENER_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/shapewiener)

set_target_properties(shapewiener_core PROPERTIES EXPORT_NAME shapewiener)
target_include_directories(shapewiener_core INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS shapewiener_core EXPORT shapewienerTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/shapewiener
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/shapewiener/version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/shapewiener)
install(EXPORT shapewienerTargets NAMESPACE shapewiener:: DESTINATION ${SHAPEWIENER_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/shapewienerConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/shapewienerConfig.cmake
                              INSTALL_DESTINATION ${SHAPEWIENER_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/shapewienerConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/shapewienerConfig.cmake
              ${PROJECT_BINARY_DIR}/shapewienerConfigVersion.cmake
        DESTINATION ${SHAPEWIENER_CMAKE_DIR})

# pkg-config: the static library and the threads it needs. The prefix is
# found from the file's own place, so `cmake --install --prefix P` works.
file(RELATIVE_PATH SHAPEWIENER_PC_TO_PREFIX /P/${CMAKE_INSTALL_LIBDIR}/pkgconfig /P)
set(SHAPEWIENER_PC_LIBNAME $<TARGET_FILE_BASE_NAME:shapewiener_core>)
configure_file(${PROJECT_SOURCE_DIR}/cmake/shapewiener.pc.in ${PROJECT_BINARY_DIR}/shapewiener.pc.in @ONLY)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/shapewiener.pc INPUT ${PROJECT_BINARY_DIR}/shapewiener.pc.in)
install(FILES ${PROJECT_BINARY_DIR}/shapewiener.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET shapewiener)
  install(TARGETS shapewiener RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  # The man page, from the program's own --help texts (Debian's help2man).
  find_program(SHAPEWIENER_HELP2MAN help2man)
  if(SHAPEWIENER_HELP2MAN)
    set(SHAPEWIENER_MAN_PAGE ${PROJECT_BINARY_DIR}/man/shapewiener.1)
    add_custom_command(
      OUTPUT ${SHAPEWIENER_MAN_PAGE}
      COMMAND ${CMAKE_COMMAND} -E env SHAPEWIENER_HELP2MAN=${SHAPEWIENER_HELP2MAN}
              bash ${PROJECT_SOURCE_DIR}/cmake/man_page.sh $<TARGET_FILE:shapewiener> ${SHAPEWIENER_MAN_PAGE}
      DEPENDS shapewiener ${PROJECT_SOURCE_DIR}/cmake/man_page.sh
      COMMENT "Writing the man page man/shapewiener.1"
      VERBATIM)
    add_custom_target(shapewiener_man ALL DEPENDS ${SHAPEWIENER_MAN_PAGE})
    install(FILES ${SHAPEWIENER_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  else()
    message(STATUS "help2man not found: no man page (install Debian's help2man)")
  endif()
endif()

# The Octave MEX files with their help texts: addpath('P/share/shapewiener/octave').
if(TARGET octave_mex)
  install(FILES ${SHAPEWIENER_OCTAVE_DIR}/shapewiener.mex ${PROJECT_SOURCE_DIR}/octave/shapewiener.m
          DESTINATION ${CMAKE_INSTALL_DATADIR}/shapewiener/octave)
endif()
if(TARGET octave_denoise_mex)
  install(FILES ${SHAPEWIENER_OCTAVE_DIR}/shapewiener_denoise.mex
                ${PROJECT_SOURCE_DIR}/octave/shapewiener_denoise.m
                ${PROJECT_SOURCE_DIR}/octave/shapewiener_estimate_noise.m
          DESTINATION ${CMAKE_INSTALL_DATADIR}/shapewiener/octave)
endif()
