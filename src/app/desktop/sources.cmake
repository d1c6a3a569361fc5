# The desktop reader's logic, without a toolkit: the panes' models, the article page, favicons.
# Unit tests run it with no display.
set(LECTERN_DESKTOP_MODEL_SOURCES
  src/app/desktop/LibrarySnapshot.cpp
  src/app/desktop/PaneModels.cpp
  src/app/desktop/DesktopController.cpp
  src/app/desktop/SmartFolderDraft.cpp
  src/app/desktop/ArticleBody.cpp
  src/app/desktop/ArticleTemplate.cpp
  src/app/desktop/Favicons.cpp
)

# The GTK 4 window over it (only built where GTK 4, libadwaita and WebKitGTK 6.0 are installed).
set(LECTERN_DESKTOP_WINDOW_SOURCES
  src/app/desktop/window/GlibMainQueue.cpp
  src/app/desktop/window/DesktopWindow.cpp
  src/app/desktop/window/LibraryDialogs.cpp
  src/app/desktop/window/SettingsDialogs.cpp
  src/app/desktop/window/SmartFolderEditor.cpp
  src/app/desktop/window/DesktopApp.cpp
)
