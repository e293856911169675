# Install layout and the Debian packages built by `make package` (CPack): the server with its
# service, the device simulator that stands in for the device library, and the capture engine
# when it is built.
set(VISTREL_INSTALL_ROOT /opt/quellwick)
set(VISTREL_SERVER_DIR ${VISTREL_INSTALL_ROOT}/vistrel/centralizedserver)
set(VISTREL_DEVICE_LIBRARY_DIR ${VISTREL_INSTALL_ROOT}/tidewell/lib)
set(VISTREL_SERVICE_NAME centralizedserver)
set(VISTREL_SERVICE_USER vistrel)
set(VISTREL_DOC_DIR /usr/share/doc/${VISTREL_SERVICE_NAME})
set(VISTREL_PACKAGING_OUT ${CMAKE_BINARY_DIR}/packaging)

foreach(file centralizedserver.service postinst prerm postrm conffiles)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${file}.in ${VISTREL_PACKAGING_OUT}/${file} @ONLY)
endforeach()

# The installed programs find the device library in its own folder, not in the build tree.
set_target_properties(centralizedserver PROPERTIES INSTALL_RPATH ${VISTREL_DEVICE_LIBRARY_DIR})

install(TARGETS centralizedserver RUNTIME DESTINATION ${VISTREL_SERVER_DIR} COMPONENT server)
install(FILES config/grafana_to_tshark.yaml DESTINATION ${VISTREL_SERVER_DIR} COMPONENT server)
install(FILES config/firmware.xml DESTINATION ${VISTREL_INSTALL_ROOT}/tidewell/firmware
        COMPONENT server)
install(FILES packaging/centralizedserver.yml DESTINATION /etc/${VISTREL_SERVICE_NAME}
        COMPONENT server)
install(FILES ${VISTREL_PACKAGING_OUT}/centralizedserver.service DESTINATION /lib/systemd/system
        COMPONENT server)
install(FILES README.md config/vistrel.yml docs/openapi.yaml DESTINATION ${VISTREL_DOC_DIR}
        COMPONENT server)
install(DIRECTORY config/grafana DESTINATION ${VISTREL_DOC_DIR} COMPONENT server)

install(TARGETS TidewellAPI LIBRARY DESTINATION ${VISTREL_DEVICE_LIBRARY_DIR} COMPONENT simulator)
install(FILES config/tidewell-sim.yml DESTINATION ${VISTREL_INSTALL_ROOT}/tidewell
        COMPONENT simulator)

if(TARGET watchkeep)
    install(TARGETS watchkeep RUNTIME DESTINATION ${VISTREL_INSTALL_ROOT}/vistrel/watchkeep
            COMPONENT engine)
    set(VISTREL_PACKAGE_COMPONENTS server simulator engine)
else()
    set(VISTREL_PACKAGE_COMPONENTS server simulator)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${VISTREL_SERVICE_NAME})
set(CPACK_PACKAGE_VENDOR "Quellwick")
set(CPACK_PACKAGE_CONTACT "Vistrel maintainers <vistrel@localhost>")
set(CPACK_PACKAGE_VERSION 2019.03.25)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Vistrel centralized capture server")
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_COMPONENTS_ALL ${VISTREL_PACKAGE_COMPONENTS})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)

set(CPACK_DEBIAN_SERVER_PACKAGE_NAME ${VISTREL_SERVICE_NAME})
# The device library comes from the simulator package or from a vendor package providing it.
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS
    "adduser, tidewell-api, tshark, libmicrohttpd12, libyaml-cpp0.7, libsqlite3-0, libcurl4, \
libpugixml1v5, libsystemd0, libstdc++6")
set(CPACK_DEBIAN_SERVER_PACKAGE_RECOMMENDS watchkeep)
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA
    ${VISTREL_PACKAGING_OUT}/postinst ${VISTREL_PACKAGING_OUT}/prerm
    ${VISTREL_PACKAGING_OUT}/postrm ${VISTREL_PACKAGING_OUT}/conffiles)
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_SERVER_DESCRIPTION
    "The server of the capture suite: HTTP API, capture index, downloads and device control, run as a systemd service")

set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME tidewell-simulator)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_PROVIDES tidewell-api)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_SIMULATOR_DESCRIPTION
    "Simulated capture devices behind the device library interface (libTidewellAPI.so)")

set(CPACK_DEBIAN_ENGINE_PACKAGE_NAME watchkeep)
set(CPACK_DEBIAN_ENGINE_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_ENGINE_DESCRIPTION
    "The capture engine: live capture, capture registration and indexing into Elasticsearch")

include(CPack)
