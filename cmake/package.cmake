# The Debian package (make package): everything `make install` puts in place, under /usr. The
# dependencies on shared libraries are computed by dpkg-shlibdeps from the programs themselves;
# the rest are what no linker sees: pdftotext, which the engine runs for PDF files, and Qt's
# platform plugins, which the application loads at start.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnwick)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "search the contents of local directories by meaning")
# The long description as dpkg shows it: lines of at most 80 columns.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "Tarnwick indexes local directories and searches them by meaning, by their\n"
    "words, by text or by regular expression. Each directory opens in a tab of the\n"
    "desktop application; its text files, source code, Markdown, HTML and PDF\n"
    "documents are cut into overlapping chunks and embedded by a small built-in\n"
    "transformer encoder, and the index stays inside the directory. tarnwick-cli\n"
    "does the same from a terminal. The encoder can be trained on the user's own\n"
    "documents.")
set(CPACK_PACKAGE_CONTACT "Tarnwick developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# GNOME Files shows "Search in Tarnwick" through nautilus-python; Dolphin needs nothing more.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-nautilus")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# PDF text comes from libpoppler-cpp, which shlibdeps finds; no converter program is needed.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "")
if(TARGET tarnwick_app)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins")
endif()
include(CPack)
