# Installs the libraries, the public headers, the programs, a CMake package
# (find_package(CommsChannel CONFIG)) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(_cc_libraries CommsChannel VireoException TarnOSWrapper CommsChannelNet CommsChannelMessage CommsChannelIntr)
install(TARGETS ${_cc_libraries}
    EXPORT CommsChannelTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

file(GLOB _cc_public_headers
    ${PROJECT_SOURCE_DIR}/include/*.h
    ${PROJECT_SOURCE_DIR}/platform/exception/*.h
    ${PROJECT_SOURCE_DIR}/platform/os/*.h
    ${PROJECT_SOURCE_DIR}/platform/net/*.h
    ${PROJECT_SOURCE_DIR}/platform/intr/*.h
    ${PROJECT_SOURCE_DIR}/platform/message/CommsChannel*.h
    ${PROJECT_SOURCE_DIR}/platform/message/VireoThreadPriority.h)
install(FILES ${_cc_public_headers} DESTINATION ${COMMSCHANNEL_INSTALL_INCLUDEDIR})

set(_cc_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/CommsChannel)
install(EXPORT CommsChannelTargets NAMESPACE CommsChannel:: DESTINATION ${_cc_cmakedir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/CommsChannelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/CommsChannelConfig.cmake
    INSTALL_DESTINATION ${_cc_cmakedir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CommsChannelConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/CommsChannelConfig.cmake
    ${PROJECT_BINARY_DIR}/CommsChannelConfigVersion.cmake
    DESTINATION ${_cc_cmakedir})

configure_file(${PROJECT_SOURCE_DIR}/cmake/commschannel.pc.in ${PROJECT_BINARY_DIR}/commschannel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/commschannel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The service files name the installed resolver by its absolute path, so
# they are filled in at install time, when the final prefix is known (also
# with "cmake --install --prefix DIR").
set(_cc_servicedir ${CMAKE_INSTALL_DATADIR}/commschannel)
install(CODE "
    set(COMMSCHANNEL_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(COMMSCHANNEL_DOCDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
    configure_file(\"${PROJECT_SOURCE_DIR}/packaging/commschannel-resolver.service.in\"
        \"${PROJECT_BINARY_DIR}/packaging/commschannel-resolver.service\" @ONLY)
    configure_file(\"${PROJECT_SOURCE_DIR}/packaging/commschannel-resolver.init.in\"
        \"${PROJECT_BINARY_DIR}/packaging/commschannel-resolver.init\" @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/packaging/commschannel-resolver.service DESTINATION ${_cc_servicedir})
install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/commschannel-resolver.init DESTINATION ${_cc_servicedir})
# The Wireshark dissector, for tshark -X lua_script:FILE or a copy among the
# user's Wireshark plugins.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/wireshark/commschannel.lua DESTINATION ${_cc_servicedir}/wireshark)
install(FILES ${PROJECT_SOURCE_DIR}/docs/guide.md ${PROJECT_SOURCE_DIR}/docs/resolver.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
