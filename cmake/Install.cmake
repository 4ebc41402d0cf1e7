# Installation layout. The programs live together in one program directory
# (<prefix>/libexec/q-brix), because the control program keeps its default log files, its
# quarantine folder and its help file beside its executable; <prefix>/bin holds links to them.
include(GNUInstallDirs)
set(QBRIX_PROGRAM_DIR ${CMAKE_INSTALL_LIBEXECDIR}/q-brix)
set(QBRIX_PROGRAMS q-brix q-brixctl q-brix-reg q-brix-event q-brix-driver)
install(TARGETS ${QBRIX_PROGRAMS} RUNTIME DESTINATION ${QBRIX_PROGRAM_DIR})
foreach(program IN LISTS QBRIX_PROGRAMS)
    install(CODE "
        file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
        file(CREATE_LINK \"../${QBRIX_PROGRAM_DIR}/${program}\"
             \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/${program}\" SYMBOLIC)")
endforeach()
# The driver files the service manager and the 9x loader start are the reference driver itself.
foreach(image q-Brix.sys q-Brix.VXD)
    install(CODE "
        file(CREATE_LINK q-brix-driver
             \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${QBRIX_PROGRAM_DIR}/${image}\" SYMBOLIC)")
endforeach()
# The help file, the user's guide rendered at build time (tools/render-help).
if(QBRIX_BUILD_UI)
    install(FILES ${QBRIX_HELP_FILE} DESTINATION ${QBRIX_PROGRAM_DIR})
endif()
install(DIRECTORY resources/scenarios DESTINATION ${CMAKE_INSTALL_DATADIR}/q-brix)
install(FILES resources/q-brix.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES resources/icons/q-brix.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
set(QBRIX_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/q-brix)
install(FILES README.md DESTINATION ${QBRIX_DOC_DIR})
install(DIRECTORY docs/ DESTINATION ${QBRIX_DOC_DIR})
