// `lectern-desktop`: the window.

#include <cstdio>

#include "app/desktop/window/DesktopApp.h"
#include "core/Error.h"

int main(int argc, char** argv) {
  try {
    return lectern::desktop::runDesktop(argc, argv);
  } catch (const lectern::InternalInconsistency& error) {
    std::fprintf(stderr, "lectern-desktop: %s\n", error.what());
    return 1;
  }
}
