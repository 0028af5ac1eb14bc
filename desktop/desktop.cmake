# The application's place on the desktop: its icon (drawn in tarnwick.svg, rendered to PNG
# sizes here with rsvg-convert, and compiled into the application as the window icon), the
# desktop entry and the AppStream metadata. Included by app/ui/CMakeLists.txt, whose target
# tarnwick_ui holds the icon resource; the names below are installed as the freedesktop
# specifications expect, under the application's id.
set(TRN_APP_ID org.tarnwick.Tarnwick)
set(TRN_DESKTOP_DIR ${CMAKE_SOURCE_DIR}/desktop)
set(TRN_ICON_SIZES 16 24 32 48 64 128 256)

find_program(RSVG_CONVERT rsvg-convert)
if(NOT RSVG_CONVERT)
    message(FATAL_ERROR "rsvg-convert (Debian package librsvg2-bin) draws the application icon; "
                        "scripts/install-deps.sh installs it")
endif()

set(TRN_ICON_PNGS)
set(TRN_ICON_QRC_FILES)
foreach(size ${TRN_ICON_SIZES})
    set(png ${CMAKE_CURRENT_BINARY_DIR}/icons/${size}.png)
    add_custom_command(OUTPUT ${png}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/icons
        COMMAND ${RSVG_CONVERT} -w ${size} -h ${size} -o ${png} ${TRN_DESKTOP_DIR}/tarnwick.svg
        DEPENDS ${TRN_DESKTOP_DIR}/tarnwick.svg
        COMMENT "Drawing the ${size} px application icon")
    list(APPEND TRN_ICON_PNGS ${png})
    string(APPEND TRN_ICON_QRC_FILES "    <file>${size}.png</file>\n")
    install(FILES ${png} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps
            RENAME ${TRN_APP_ID}.png)
endforeach()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/icons/app_icon.qrc.new
     "<!DOCTYPE RCC>\n<RCC version=\"1.0\">\n<qresource prefix=\"/icons/app\">\n"
     "${TRN_ICON_QRC_FILES}</qresource>\n</RCC>\n")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/icons/app_icon.qrc.new
               ${CMAKE_CURRENT_BINARY_DIR}/icons/app_icon.qrc COPYONLY)
qt_add_resources(TRN_ICON_RESOURCE ${CMAKE_CURRENT_BINARY_DIR}/icons/app_icon.qrc)
add_custom_target(tarnwick_icon_pngs DEPENDS ${TRN_ICON_PNGS})

install(FILES ${TRN_DESKTOP_DIR}/tarnwick.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps RENAME ${TRN_APP_ID}.svg)
install(FILES ${TRN_DESKTOP_DIR}/${TRN_APP_ID}.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
# "Search in Tarnwick" on a folder's context menu: a service menu for Dolphin and an extension for
# GNOME Files (read by nautilus-python), both starting "tarnwick --search FOLDER".
install(FILES ${TRN_DESKTOP_DIR}/file-managers/${TRN_APP_ID}.search.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kio/servicemenus)
install(FILES ${TRN_DESKTOP_DIR}/file-managers/tarnwick_search.py
        DESTINATION ${CMAKE_INSTALL_DATADIR}/nautilus-python/extensions)
configure_file(${TRN_DESKTOP_DIR}/${TRN_APP_ID}.metainfo.xml
               ${CMAKE_CURRENT_BINARY_DIR}/${TRN_APP_ID}.metainfo.xml @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${TRN_APP_ID}.metainfo.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
