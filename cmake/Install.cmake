# What `cmake --install` lays down, in three components: runtime (the two libraries), development
# (headers, what CMake and pkg-config need) and tools (the command-line tool). The installed folder
# may be moved; nothing in it holds its path.
include(CMakePackageConfigHelpers)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/k9erepl)

install(TARGETS K9eReplStorage K9Sys EXPORT k9erepl
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
        NAMELINK_COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development)
if(WIN32)
    install(FILES ${PROJECT_SOURCE_DIR}/src/api/exports.def
        DESTINATION ${CMAKE_INSTALL_LIBDIR} RENAME K9eReplStorage.def COMPONENT development)
endif()

# --- CMake: find_package(k9erepl) gives k9erepl::storage and k9erepl::sys.
install(EXPORT k9erepl NAMESPACE k9erepl:: FILE k9erepl-targets.cmake
    DESTINATION ${package_folder} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/k9erepl-config.cmake.in
    ${PROJECT_BINARY_DIR}/k9erepl-config.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/k9erepl-config-version.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/k9erepl-config.cmake
    ${PROJECT_BINARY_DIR}/k9erepl-config-version.cmake
    DESTINATION ${package_folder} COMPONENT development)

# --- pkg-config, which knows its own file's place
file(RELATIVE_PATH k9erepl_prefix_from_pc
    /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" k9erepl_prefix_from_pc "${k9erepl_prefix_from_pc}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/k9erepl.pc.in ${PROJECT_BINARY_DIR}/k9erepl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/k9erepl.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

if(K9EREPL_BUILD_TOOL)
    if(NOT WIN32)
        file(RELATIVE_PATH to_libraries /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
        set_target_properties(k9repl PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
    endif()
    install(TARGETS k9repl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
