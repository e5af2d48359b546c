# What `cmake --install` puts under the prefix: the shared library with its
# soname, imgapi.h, the trnw tool and its man page, a pkg-config file, a
# CMake package configuration (find_package(trnw6w95) gives the imported
# target trnw6w95::trnw6w95) and the Python package.

set(TRNW_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/trnw6w95)
# imgapi.h in a folder of its own: a plain name like that must not collide
# under /usr/include.  pkg-config and the imported target point there.
set(TRNW_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/trnw6w95)

install(TARGETS trnw6w95 EXPORT trnw6w95Targets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS trnw RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES core/imgapi.h DESTINATION ${TRNW_INCLUDE_DIR})

include(CMakePackageConfigHelpers)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/trnw6w95ConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(EXPORT trnw6w95Targets NAMESPACE trnw6w95:: DESTINATION ${TRNW_CMAKE_DIR})
install(FILES cmake/trnw6w95Config.cmake ${CMAKE_BINARY_DIR}/trnw6w95ConfigVersion.cmake
        DESTINATION ${TRNW_CMAKE_DIR})

# The pkg-config file names the prefix given at install time
# (`cmake --install build --prefix DIR`), not the one configured.
install(CODE "
  set(TRNW_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(TRNW_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(TRNW_INCLUDEDIR \"${TRNW_INCLUDE_DIR}\")
  set(TRNW_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/trnw6w95.pc.in\" \"${CMAKE_BINARY_DIR}/trnw6w95.pc\" @ONLY)")
install(FILES ${CMAKE_BINARY_DIR}/trnw6w95.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The man page, from its scdoc source.
find_program(TRNW_SCDOC scdoc)
if(TRNW_SCDOC)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/trnw.1
    COMMAND ${TRNW_SCDOC} < ${PROJECT_SOURCE_DIR}/docs/trnw.1.scd > ${CMAKE_BINARY_DIR}/trnw.1
    DEPENDS ${PROJECT_SOURCE_DIR}/docs/trnw.1.scd VERBATIM)
  add_custom_target(trnw_manpage ALL DEPENDS ${CMAKE_BINARY_DIR}/trnw.1)
  install(FILES ${CMAKE_BINARY_DIR}/trnw.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(STATUS "scdoc not found: the trnw man page is not built (Debian package scdoc)")
endif()

# The Python package (python/trnw), told where the library was installed.
if(NOT WIN32)
  set(TRNW_PYTHON_DIR lib/python3/dist-packages CACHE STRING
      "Where the Python package goes, relative to the prefix (Debian's python3 path)")
  install(DIRECTORY python/trnw DESTINATION ${TRNW_PYTHON_DIR} FILES_MATCHING PATTERN "*.py"
          PATTERN __pycache__ EXCLUDE)
  install(CODE "
    set(location \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/$<TARGET_SONAME_FILE_NAME:trnw6w95>\")
    file(WRITE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${TRNW_PYTHON_DIR}/trnw/_location.py\"
         \"# Written by cmake --install: the library this package loads.\\nLIBRARY = \\\"\${location}\\\"\\n\")")
endif()
