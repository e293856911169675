# Checks every include between subsystems against the allowed direction: host and logging at
# the bottom, HTTP at the top, the capture engine beside the server using only the bottom
# layers. Run: cmake -DSOURCE_DIR=<repository> -P check_includes.cmake
#
# ALLOWED_<layer>: the layers its files may include (its own is always allowed; common/ holds
# types shared by all and may be included from anywhere).
cmake_minimum_required(VERSION 3.25)

set(LAYERS metrics host startup capture searchindex dashboard database devices engine session http
           watchkeep)
set(ALLOWED_metrics "")
set(ALLOWED_host "")
set(ALLOWED_startup host)
set(ALLOWED_capture host startup)
set(ALLOWED_searchindex host startup)
set(ALLOWED_dashboard host startup capture)
set(ALLOWED_database host startup capture)
set(ALLOWED_devices host startup)
set(ALLOWED_engine host startup)
set(ALLOWED_session host startup capture searchindex database devices engine)
set(ALLOWED_http metrics host startup capture searchindex dashboard database devices engine session)
set(ALLOWED_watchkeep host startup capture searchindex)

if(NOT SOURCE_DIR)
    message(FATAL_ERROR "SOURCE_DIR is not set")
endif()

set(violations 0)
foreach(layer IN LISTS LAYERS common)
    if(layer STREQUAL "watchkeep")
        set(folder ${SOURCE_DIR}/watchkeep)
    else()
        set(folder ${SOURCE_DIR}/src/${layer})
    endif()
    file(GLOB_RECURSE files ${folder}/*.h ${folder}/*.cpp)
    foreach(file IN LISTS files)
        # The program's entry point sits above every layer.
        if(file STREQUAL "${SOURCE_DIR}/src/startup/main.cpp")
            continue()
        endif()
        file(STRINGS ${file} includes REGEX "^[ \t]*#[ \t]*include[ \t]*[\"<][a-z]+/")
        foreach(line IN LISTS includes)
            string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*[\"<]([a-z]+)/.*" "\\1" target
                                 "${line}")
            if(target STREQUAL layer OR target STREQUAL "common")
                continue()
            endif()
            if(NOT target IN_LIST LAYERS)
                continue()  # a system or third-party header
            endif()
            if(layer STREQUAL "common" OR NOT target IN_LIST ALLOWED_${layer})
                file(RELATIVE_PATH shown ${SOURCE_DIR} ${file})
                message(SEND_ERROR "${shown}: ${layer} may not include ${target}: ${line}")
                math(EXPR violations "${violations} + 1")
            endif()
        endforeach()
    endforeach()
endforeach()

if(violations GREATER 0)
    message(FATAL_ERROR "${violations} include(s) against the layering")
endif()
message(STATUS "Includes follow the layering")
