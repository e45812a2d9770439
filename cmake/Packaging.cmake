# The Debian package (cpack -G DEB in the build tree): the install tree under TARNWICK_PREFIX,
# plus the systemd unit and the logrotate snippet, which only the package installs.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/tarnwick-agent.service
        DESTINATION /lib/systemd/system COMPONENT system EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/logrotate RENAME tarnwick
        DESTINATION /etc/logrotate.d COMPONENT system EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnwick)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "tarnwick developers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Host security agent: file protection for Docker containers")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "tarnwick-agent watches the containers whose image a policy names and raises JSON alarms\n\
for changes to their protected files and for ELF executables written into them.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "docker.io, logrotate")
# The default components (the agent) and the package-only one, both installed from the root
# with DESTDIR, so that the absolute system paths land inside the package.
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${CMAKE_BINARY_DIR};tarnwick;ALL;/" "${CMAKE_BINARY_DIR};tarnwick;system;/")
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${TARNWICK_PREFIX})
set(CPACK_STRIP_FILES ON)
# Run-time dependencies as Debian package names, from the libraries the binaries link; the
# agent's own libraries are found in the package itself.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/conffiles ${PROJECT_SOURCE_DIR}/packaging/postinst
    ${PROJECT_SOURCE_DIR}/packaging/prerm ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
