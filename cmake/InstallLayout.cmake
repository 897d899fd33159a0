# Where `cmake --install` puts the module and its data.
#
#   user    (default) the host's per-user plug-in folder:
#           <prefix>/corvane-vertical-canvas/bin/64bit/corvane-vertical-canvas.so and
#           <prefix>/corvane-vertical-canvas/data, prefix ~/.config/obs-studio/plugins
#   system  where the host's packaged obs looks for system plug-ins (the Debian package):
#           <prefix>/lib/<arch>/obs-plugins/corvane-vertical-canvas.so and
#           <prefix>/share/obs/obs-plugins/corvane-vertical-canvas, prefix /usr
#
# An explicit CMAKE_INSTALL_PREFIX (or --prefix at install time) wins in both.

set(CV_INSTALL_LAYOUT
    "user"
    CACHE STRING "Install layout: user (the host's per-user plug-in folder) or system (for a package)")
set_property(CACHE CV_INSTALL_LAYOUT PROPERTY STRINGS user system)

if(CV_INSTALL_LAYOUT STREQUAL "user")
  if(DEFINED ENV{XDG_CONFIG_HOME} AND NOT "$ENV{XDG_CONFIG_HOME}" STREQUAL "")
    set(_cv_default_prefix "$ENV{XDG_CONFIG_HOME}/obs-studio/plugins")
  else()
    set(_cv_default_prefix "$ENV{HOME}/.config/obs-studio/plugins")
  endif()
  set(_cv_prefix_doc "Install prefix: the host's per-user plug-in folder")
elseif(CV_INSTALL_LAYOUT STREQUAL "system")
  set(_cv_default_prefix "/usr")
  set(_cv_prefix_doc "Install prefix: the host's system prefix")
else()
  message(FATAL_ERROR "CV_INSTALL_LAYOUT must be user or system (got '${CV_INSTALL_LAYOUT}')")
endif()

# The default follows the layout, also when the layout of an existing build folder changes;
# a prefix given by hand stays.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT OR (DEFINED CACHE{_CV_DEFAULT_PREFIX} AND CMAKE_INSTALL_PREFIX
                                                                                       STREQUAL _CV_DEFAULT_PREFIX))
  set(CMAKE_INSTALL_PREFIX
      "${_cv_default_prefix}"
      CACHE PATH "${_cv_prefix_doc}" FORCE)
  set(_CV_DEFAULT_PREFIX
      "${_cv_default_prefix}"
      CACHE INTERNAL "The install prefix the layout chose")
endif()

if(CV_INSTALL_LAYOUT STREQUAL "user")
  set(CV_INSTALL_MODULE_DIR "${PROJECT_NAME}/bin/64bit")
  set(CV_INSTALL_DATA_DIR "${PROJECT_NAME}/data")
else()
  # The host's own modules lie beside its libobs (obs-nix.c: OBS_INSTALL_PREFIX "/"
  # OBS_PLUGIN_DESTINATION in OBS 29, "../" OBS_PLUGIN_PATH from /usr/bin in OBS 32; both
  # are /usr/lib/x86_64-linux-gnu/obs-plugins on Debian), their data in
  # <prefix>/share/obs/obs-plugins/<module>. Relative to the prefix, so that CPack's staging
  # folder gets the same layout.
  set(_cv_module_dir "lib/obs-plugins")
  if(CMAKE_LIBRARY_ARCHITECTURE)
    set(_cv_module_dir "lib/${CMAKE_LIBRARY_ARCHITECTURE}/obs-plugins")
  endif()
  if(CV_HOST_PLUGIN_DIR)
    string(FIND "${CV_HOST_PLUGIN_DIR}/" "${CMAKE_INSTALL_PREFIX}/" _cv_at)
    if(_cv_at EQUAL 0)
      file(RELATIVE_PATH _cv_module_dir "${CMAKE_INSTALL_PREFIX}" "${CV_HOST_PLUGIN_DIR}")
    endif()
  endif()
  set(CV_INSTALL_MODULE_DIR "${_cv_module_dir}")
  set(CV_INSTALL_DATA_DIR "share/obs/obs-plugins/${PROJECT_NAME}")
endif()
message(STATUS "Install layout ${CV_INSTALL_LAYOUT}: ${CMAKE_INSTALL_PREFIX}/${CV_INSTALL_MODULE_DIR}, "
               "${CMAKE_INSTALL_PREFIX}/${CV_INSTALL_DATA_DIR}")
