# The installed files. The component "development" is enough to build and run a module beside the library. It is part of
# the full installation, or can be installed alone with `cmake --install BUILD --component development`.
include(GNUInstallDirs)

install(TARGETS vexad vexa RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS vexa-auth vexa-network RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS vexavirtualization LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

# In the same folders as in the source tree, because the headers include each other by these names.
set(vexa_headers_folder ${CMAKE_INSTALL_INCLUDEDIR}/vexavirtualization/webapi)
install(FILES webapi/utils/export.h webapi/utils/utils.h
  DESTINATION ${vexa_headers_folder}/utils COMPONENT development)
install(DIRECTORY webapi/platform/
  DESTINATION ${vexa_headers_folder}/platform COMPONENT development FILES_MATCHING PATTERN "*.h")

# Relative to the file itself, so that an installation can be moved, or staged below another folder.
file(RELATIVE_PATH VEXA_PKGCONFIG_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
configure_file(${CMAKE_SOURCE_DIR}/cmake/vexavirtualization.pc.in ${CMAKE_BINARY_DIR}/vexavirtualization.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vexavirtualization.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
