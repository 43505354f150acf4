# What a bench PC installs, and its Debian package (`cmake --build --preset default
# --target package`). The station program goes to lib/quorvel, not bin: it keeps its
# folders beside itself, so each operator runs a copy laid out by quorvel-station-setup.
set(pkg ${PROJECT_SOURCE_DIR}/packaging)
set(QUORVEL_APP_ID io.quorvel.Station)

# Everything installed is built by one target, so that cpack can run without "all".
add_custom_target(quorvel_installables)
foreach(tool quorvel-pac quorvel-bench quorvel-ports quorvel-history quorvel-sim-engine quorvel-engine-check
             quorvel-sprd-flash quorvel-sprd-phone)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION bin)
    add_dependencies(quorvel_installables ${tool})
  endif()
endforeach()
if(TARGET quorvel)
  install(TARGETS quorvel RUNTIME DESTINATION lib/quorvel)
  add_dependencies(quorvel_installables quorvel)
  install(PROGRAMS ${pkg}/bin/quorvel-station ${pkg}/bin/quorvel-station-setup DESTINATION bin)
  install(FILES ${pkg}/desktop/${QUORVEL_APP_ID}.desktop DESTINATION share/applications)
  configure_file(${pkg}/desktop/${QUORVEL_APP_ID}.metainfo.xml.in ${PROJECT_BINARY_DIR}/${QUORVEL_APP_ID}.metainfo.xml @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${QUORVEL_APP_ID}.metainfo.xml DESTINATION share/metainfo)
  install(FILES ${PROJECT_SOURCE_DIR}/data/icons/quorvel.svg DESTINATION share/icons/hicolor/scalable/apps
          RENAME ${QUORVEL_APP_ID}.svg)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/station-template/ DESTINATION share/quorvel/station-template)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/quorvel-bench/scenarios/ DESTINATION share/quorvel/scenarios)
# The fleet page, served by the plant's broker (the sample configuration says how).
install(DIRECTORY ${PROJECT_SOURCE_DIR}/fleet/ DESTINATION share/quorvel/fleet)
install(FILES ${pkg}/mosquitto-fleet.conf DESTINATION share/doc/quorvel/examples)
install(FILES ${pkg}/udev/70-quorvel-station.rules DESTINATION lib/udev/rules.d)
install(FILES ${pkg}/modules-load.d/quorvel-station.conf DESTINATION lib/modules-load.d)

# gzip -n: the same sources give the same package.
set(QUORVEL_DEB_VERSION ${PROJECT_VERSION})
configure_file(${pkg}/debian/changelog.in ${PROJECT_BINARY_DIR}/packaging/changelog @ONLY)
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/packaging/changelog)
install(FILES ${pkg}/debian/copyright ${PROJECT_BINARY_DIR}/packaging/changelog.gz
              ${PROJECT_SOURCE_DIR}/docs/engine-protocol.md
        DESTINATION share/doc/quorvel)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvel)
set(CPACK_PACKAGE_VERSION ${QUORVEL_DEB_VERSION})
set(CPACK_PACKAGE_CONTACT "Quorvel developers <bench@quorvel.io>")
set(CPACK_PACKAGE_VENDOR "Quorvel developers")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "firmware download station for phone service benches
One PC drives up to sixteen phones in download mode, one per USB socket, each
slot running the chip vendor's download engine and showing its progress, its
result and the pass and fail counts.

The package holds the station, a menu entry that lays out the operator's
station folder on first use, the command-line tools (package checks, bench
scenarios, socket map and bench check, job history, a simulated engine
program), the udev rule that gives the group quorvel access to phones in
download mode, and the serial drivers loaded at boot.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The native SPRD engine reaches phones through libusb, the station its broker through
# libmosquitto (also found by shlibdeps; named so a build without dpkg-shlibdeps still
# declares them).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libusb-1.0-0, libmosquitto1")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS udev)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${pkg}/debian/postinst ${pkg}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/deb)
include(CPack)
