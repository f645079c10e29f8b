# What a Mac install is: the daemon as "ORVEN Helper.app" in the install
# directory, its launchd job, and the rescue script beside the bundle.
#   cmake --preset macos && cmake --build --preset macos
#   sudo cmake --install build/macos
# The paths are those launchd and the uninstall expect, so the default prefix
# is the root of the file system.

if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX "/" CACHE PATH "Install prefix" FORCE)
endif()

set_target_properties(orven-helper PROPERTIES
  MACOSX_BUNDLE TRUE
  OUTPUT_NAME "ORVEN Helper"
  MACOSX_BUNDLE_BUNDLE_NAME "ORVEN Helper"
  MACOSX_BUNDLE_GUI_IDENTIFIER "test.orven.app.helper"
  MACOSX_BUNDLE_BUNDLE_VERSION "${PROJECT_VERSION}"
  MACOSX_BUNDLE_SHORT_VERSION_STRING "${PROJECT_VERSION}")

set(ORVEN_INSTALL_DIRECTORY "Library/PrivilegedHelperTools/test.orven.app")

install(TARGETS orven-helper BUNDLE DESTINATION "${ORVEN_INSTALL_DIRECTORY}")
install(FILES "${CMAKE_CURRENT_LIST_DIR}/test.orven.app.helper.plist"
  DESTINATION "Library/LaunchDaemons"
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(PROGRAMS "${CMAKE_CURRENT_LIST_DIR}/hardkill-deactivate.sh"
  DESTINATION "${ORVEN_INSTALL_DIRECTORY}"
  PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
