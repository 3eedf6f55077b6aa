# What `cmake --install` lays down: the two libraries, their headers and the tool.
include(GNUInstallDirs)
install(TARGETS K9eReplStorage K9Sys
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(K9EREPL_BUILD_TOOL)
    install(TARGETS k9repl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
