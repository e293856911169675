# Copies the shipped configuration files into the staged program folder.
foreach(pair
        "config/grafana_to_tshark.yaml|vistrel/centralizedserver/grafana_to_tshark.yaml"
        "config/firmware.xml|tidewell/firmware/firmware.xml")
    string(REPLACE "|" ";" parts "${pair}")
    list(GET parts 0 from)
    list(GET parts 1 to)
    if(EXISTS "${SOURCE_DIR}/${from}")
        configure_file("${SOURCE_DIR}/${from}" "${STAGE_ROOT}/${to}" COPYONLY)
    endif()
endforeach()
