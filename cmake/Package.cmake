# What CPack makes of the installed components: Debian packages on Linux, one archive elsewhere.
# scripts/package.sh calls it.
set(CPACK_PACKAGE_NAME k9erepl)
set(CPACK_PACKAGE_VENDOR "The K9eReplStorage developers")
set(CPACK_PACKAGE_CONTACT "The K9eReplStorage developers <noreply@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Replication storage library")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_VERBATIM_VARIABLES ON)

if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_STRIP_FILES ON)
    set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
    math(EXPR bits "${CMAKE_SIZEOF_VOID_P} * 8")
    set(CPACK_PACKAGE_FILE_NAME k9erepl-${PROJECT_VERSION}-windows-${bits}bit)
else()
    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    # The libraries come from packages of this build, which dpkg does not know yet.
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
    set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)  # strips, too

    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libk9erepl${K9EREPL_ABI_VERSION})
    set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
        "Keeps a stream of records with rising revisions, on disk or in memory.")

    set(library "libk9erepl${K9EREPL_ABI_VERSION} (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libk9erepl-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library}")
    set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
        "Headers, and what CMake and pkg-config need to find the library.")

    set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME k9repl)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library}")
    set(CPACK_COMPONENT_TOOLS_DESCRIPTION
        "The command-line tool: appends to, reads, checks and clears storages.")
endif()
set(CPACK_COMPONENTS_ALL runtime development)
if(K9EREPL_BUILD_TOOL)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
include(CPack)
