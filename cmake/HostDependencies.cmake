# The host's SDK (libobs, the front-end API), FFmpeg and the Qt major the host uses.

find_package(PkgConfig REQUIRED)
pkg_check_modules(
  FFMPEG
  REQUIRED
  IMPORTED_TARGET
  libavformat
  libavcodec
  libavutil)
# The check of a TLS server's certificate.
pkg_check_modules(GNUTLS REQUIRED IMPORTED_TARGET gnutls)

# The fuzz targets link only the host-free logic, which needs FFmpeg and GnuTLS alone.
if(CV_FUZZ_ONLY)
  return()
endif()

find_package(libobs REQUIRED)
find_package(obs-frontend-api REQUIRED)

# A plug-in must be linked against the same Qt major as the obs program that loads it:
# a Qt 5 host cannot load a Qt 6 plug-in and the other way round.
find_program(CV_OBS_EXECUTABLE obs)
if(CV_QT_MAJOR STREQUAL "auto")
  set(_cv_detected "")
  if(CV_OBS_EXECUTABLE)
    execute_process(
      COMMAND ldd "${CV_OBS_EXECUTABLE}"
      OUTPUT_VARIABLE _cv_ldd
      ERROR_QUIET)
    if(_cv_ldd MATCHES "libQt([56])Core")
      set(_cv_detected "${CMAKE_MATCH_1}")
    endif()
  endif()
  if(_cv_detected STREQUAL "")
    message(FATAL_ERROR "Cannot tell which Qt the obs program uses; set CV_QT_MAJOR to 5 or 6")
  endif()
  set(CV_QT_MAJOR_EFFECTIVE "${_cv_detected}")
  message(STATUS "Qt ${_cv_detected} detected from ${CV_OBS_EXECUTABLE}")
elseif(CV_QT_MAJOR MATCHES "^[56]$")
  set(CV_QT_MAJOR_EFFECTIVE "${CV_QT_MAJOR}")
else()
  message(FATAL_ERROR "CV_QT_MAJOR must be auto, 5 or 6 (got '${CV_QT_MAJOR}')")
endif()

find_package(Qt${CV_QT_MAJOR_EFFECTIVE} REQUIRED COMPONENTS Core Gui Widgets)
add_library(cv_qt INTERFACE)
target_link_libraries(cv_qt INTERFACE Qt${CV_QT_MAJOR_EFFECTIVE}::Core Qt${CV_QT_MAJOR_EFFECTIVE}::Gui
                                      Qt${CV_QT_MAJOR_EFFECTIVE}::Widgets)

# Where the host keeps its own modules (obs-x264, obs-ffmpeg, ...); the host tests load them.
get_target_property(_cv_libobs_location OBS::libobs IMPORTED_LOCATION_NONE)
if(NOT _cv_libobs_location)
  get_target_property(_cv_libobs_location OBS::libobs LOCATION)
endif()
get_filename_component(_cv_libobs_dir "${_cv_libobs_location}" DIRECTORY)
set(CV_HOST_PLUGIN_DIR
    "${_cv_libobs_dir}/obs-plugins"
    CACHE PATH "Folder of the host's own plug-in binaries")
get_filename_component(_cv_prefix "${_cv_libobs_dir}/../.." ABSOLUTE)
if(EXISTS "/usr/share/obs/obs-plugins")
  set(_cv_data_default "/usr/share/obs/obs-plugins")
else()
  set(_cv_data_default "${_cv_prefix}/share/obs/obs-plugins")
endif()
set(CV_HOST_PLUGIN_DATA_DIR
    "${_cv_data_default}"
    CACHE PATH "Folder of the host's own plug-in data")
