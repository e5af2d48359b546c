# The libraries the library builds on, as two targets every part of the
# build links through:
#   trnw::png   libpng and zlib
#   trnw::jpeg  libjpeg (libjpeg-turbo)
# On Linux, Debian's shared libraries (libpng-dev, zlib1g-dev,
# libjpeg62-turbo-dev).  On Windows, static builds made by
# scripts/win_deps.sh from Debian's source packages in
# build-win-deps/<arch>/, with zlib from libz-mingw-w64-dev, so that the DLL
# imports system DLLs only.

add_library(trnw::png INTERFACE IMPORTED)
add_library(trnw::jpeg INTERFACE IMPORTED)

if(WIN32)
  set(TRNW_WIN_DEPS "${PROJECT_SOURCE_DIR}/build-win-deps/${CMAKE_SYSTEM_PROCESSOR}" CACHE PATH
      "Static libjpeg and libpng for this Windows architecture (scripts/win_deps.sh)")
  foreach(library libpng16.a libjpeg.a)
    if(NOT EXISTS "${TRNW_WIN_DEPS}/lib/${library}")
      message(FATAL_ERROR "${TRNW_WIN_DEPS}/lib/${library} is missing: run scripts/win_deps.sh ${CMAKE_SYSTEM_PROCESSOR}")
    endif()
  endforeach()
  # The static zlib by its full name: the import library beside it would
  # make the DLL depend on zlib1.dll.
  find_file(TRNW_ZLIB_STATIC libz.a PATHS /usr/${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32/lib NO_DEFAULT_PATH)
  if(NOT TRNW_ZLIB_STATIC)
    message(FATAL_ERROR "no static mingw zlib (Debian package libz-mingw-w64-dev)")
  endif()
  set_target_properties(trnw::png PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${TRNW_WIN_DEPS}/include"
    INTERFACE_LINK_LIBRARIES "${TRNW_WIN_DEPS}/lib/libpng16.a;${TRNW_ZLIB_STATIC}")
  set_target_properties(trnw::jpeg PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${TRNW_WIN_DEPS}/include"
    INTERFACE_LINK_LIBRARIES "${TRNW_WIN_DEPS}/lib/libjpeg.a")
else()
  find_package(PNG REQUIRED)  # PNG::PNG carries ZLIB::ZLIB
  find_package(JPEG REQUIRED)
  set_target_properties(trnw::png PROPERTIES INTERFACE_LINK_LIBRARIES PNG::PNG)
  set_target_properties(trnw::jpeg PROPERTIES INTERFACE_LINK_LIBRARIES JPEG::JPEG)
endif()
