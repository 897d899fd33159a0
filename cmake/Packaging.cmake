# The Debian package (CPack's DEB generator), made by scripts/package from a build with
# CV_INSTALL_LAYOUT=system:
#
#   corvane-vertical-canvas_<project version>-<revision>~<dist>_<arch>.deb
#
# Its Depends are the shared libraries the module links (dpkg-shlibdeps) and the host's
# obs at the version it was built against: a module built against libobs M.N loads in
# obs M.x (x >= N) only, and with the Qt major of that obs.

set(CV_DEB_REVISION
    "1"
    CACHE STRING "Debian revision of the package")
# The host the package is for, so that the two hosts' packages differ: deb12 on Debian 12,
# sid on unstable, the codename elsewhere.
if(NOT DEFINED CACHE{CV_DEB_DIST})
  set(_cv_dist "")
  if(EXISTS "/etc/os-release")
    file(STRINGS "/etc/os-release" _cv_os_release)
    foreach(_cv_line IN LISTS _cv_os_release)
      if(_cv_line MATCHES "^([A-Z_]+)=\"?([^\"]*)\"?$")
        set(_cv_os_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
      endif()
    endforeach()
    if(_cv_os_ID STREQUAL "debian" AND _cv_os_VERSION_ID)
      set(_cv_dist "deb${_cv_os_VERSION_ID}")
    elseif(_cv_os_ID STREQUAL "debian" AND _cv_os_PRETTY_NAME MATCHES "/sid")
      set(_cv_dist "sid")
    elseif(_cv_os_VERSION_CODENAME)
      set(_cv_dist "${_cv_os_VERSION_CODENAME}")
    elseif(_cv_os_ID)
      set(_cv_dist "${_cv_os_ID}${_cv_os_VERSION_ID}")
    endif()
  endif()
  if(_cv_dist STREQUAL "")
    set(_cv_dist "local")
  endif()
  set(CV_DEB_DIST
      "${_cv_dist}"
      CACHE STRING "Which system the package is for; ends its version (1.0.0-1~deb12)")
endif()
set(CV_PACKAGE_MAINTAINER
    "Corvane Vertical Canvas maintainers <maintainers@corvane.example>"
    CACHE STRING "The package's Maintainer field")
set(CV_PACKAGE_HOMEPAGE
    "https://corvane.example/vertical-canvas"
    CACHE STRING "The package's Homepage field")

# The host's obs at the ABI the module was built for, from the libobs it was built against.
if(NOT libobs_VERSION MATCHES "^([0-9]+)\\.([0-9]+)")
  message(FATAL_ERROR "Cannot tell the version of the host's libobs ('${libobs_VERSION}')")
endif()
set(CV_OBS_MAJOR "${CMAKE_MATCH_1}")
set(CV_OBS_MINOR "${CMAKE_MATCH_2}")
math(EXPR _cv_obs_next "${CV_OBS_MAJOR} + 1")
set(CV_PACKAGE_OBS_DEPENDS "obs-studio (>= ${CV_OBS_MAJOR}.${CV_OBS_MINOR}), obs-studio (<< ${_cv_obs_next})")

set(CPACK_GENERATOR "DEB")
set(CPACK_CV_INSTALL_LAYOUT "${CV_INSTALL_LAYOUT}")
set(CPACK_PROJECT_CONFIG_FILE "${CMAKE_CURRENT_LIST_DIR}/CPackProjectConfig.cmake")
set(CPACK_PACKAGE_NAME "${PROJECT_NAME}")
set(CPACK_PACKAGE_VENDOR "Corvane")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${CV_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "OBS Studio plug-in: a second, vertical 9:16 canvas streamed alongside")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME "DEB-DEFAULT")
set(CPACK_DEBIAN_PACKAGE_RELEASE "${CV_DEB_REVISION}~${CV_DEB_DIST}")
set(CPACK_DEBIAN_PACKAGE_SECTION "video")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CV_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "${CV_PACKAGE_HOMEPAGE}")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CV_PACKAGE_OBS_DEPENDS}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE "xz")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Corvane Vertical Canvas adds a second, vertical canvas (1080x1920 at 30 fps by default)
beside OBS Studio's main canvas, with vertical scenes framed from OBS's own scenes, and
streams it live over RTMP or SRT to one or more destinations at the same time as OBS's
own stream, or records it. It adds the Vertical Canvas dock (in the Docks menu) and
Tools > Corvane Vertical Streaming Settings.
.
Built for obs-studio ${CV_OBS_MAJOR}.x with Qt ${CV_QT_MAJOR_EFFECTIVE}.")

include(CPack)
