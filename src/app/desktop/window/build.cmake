# The desktop window: a library the window tests link, and the `lectern-desktop` program.
add_library(lectern_desktop_window STATIC ${LECTERN_DESKTOP_WINDOW_SOURCES})
target_link_libraries(lectern_desktop_window PUBLIC lectern_desktop_model PkgConfig::DESKTOP)
# GTK's and WebKit's headers are not ours to warn about.
target_include_directories(lectern_desktop_window SYSTEM PUBLIC ${DESKTOP_INCLUDE_DIRS})

add_executable(lectern-desktop src/app/desktop/window/main.cpp)
target_link_libraries(lectern-desktop PRIVATE lectern_desktop_window)

# `make install`: the two programs, the desktop entry (with the feed: and lectern: handlers) and the icon.
include(GNUInstallDirs)
install(TARGETS lectern-desktop RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES data/com.quillhq.Lectern.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES data/com.quillhq.Lectern.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
