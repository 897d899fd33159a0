# Read by cpack itself (CPACK_PROJECT_CONFIG_FILE): a package only from a build with the
# system layout; a per-user layout would install into the building user's home.
if(NOT CPACK_CV_INSTALL_LAYOUT STREQUAL "system")
  message(FATAL_ERROR "A package needs a build configured with -DCV_INSTALL_LAYOUT=system "
                      "(this one has '${CPACK_CV_INSTALL_LAYOUT}'); scripts/package makes one")
endif()
