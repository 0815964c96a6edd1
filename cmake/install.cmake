# SPDX-License-Identifier: MIT
# What `cmake --install` puts where, in three components: runtime (the library), dev (what building against it needs) and
# tools (the applications). The Debian packages of tools/packages take the same files.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kavqtglue)
set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/kavqtglue)

install(TARGETS kavqtglue EXPORT kavqtglueTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
if(KAV_BUILD_EXAMPLES)
    set(tools vorn_monitor bus_monitor cds_view history_dump nv_dump trace_view)
    install(TARGETS ${tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    file(RELATIVE_PATH to_library ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(${tools} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_library}")
    foreach(tool IN LISTS tools)
        install(FILES apps/completion.bash RENAME ${tool}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
    endforeach()
endif()

install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

# Headers that only sources of the library include stay at home.
set(own_headers "util/tsan\\.h" "vorn/frame_characters\\.h" "diner/probes\\.h" "diner/Trace_ring\\.h"
    "diner/Trace_json\\.h" "data_stream/trace_bytes\\.h")
if(KAV_FLASH_STORE STREQUAL "external")
    list(APPEND own_headers "platform/pcf_host\\.h")
endif()
list(JOIN own_headers "|" own_headers)
install(DIRECTORY src/ DESTINATION ${header_dir} COMPONENT dev
    FILES_MATCHING PATTERN "*.h" REGEX "(${own_headers})$" EXCLUDE)

configure_package_config_file(cmake/kavqtglueConfig.cmake.in kavqtglueConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(kavqtglueConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT kavqtglueTargets NAMESPACE kavqtglue:: DESTINATION ${package_dir} COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/kavqtglueConfig.cmake ${PROJECT_BINARY_DIR}/kavqtglueConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT dev)

# Relative to where the file lies, so that an installed tree may be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
    BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE to_prefix)
if(QT_VERSION_MAJOR EQUAL 5)
    set(pc_flags " -fPIC") # Qt 5 refuses to be included without
endif()
configure_file(cmake/kavqtglue.pc.in kavqtglue.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kavqtglue.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
