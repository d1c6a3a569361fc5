#include "app/tui/ReaderScreen.h"

#include <curses.h>
#include <langinfo.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <cstring>

#include "app/tui/ReaderModel.h"
#include "core/MainQueue.h"

namespace lectern {
namespace {

constexpr int kKeyWaitMilliseconds = 100;

// ncurses key codes to the model's.
int translate(int key) {
  switch (key) {
    case KEY_UP: return kKeyUp;
    case KEY_DOWN: return kKeyDown;
    case KEY_LEFT: return kKeyLeft;
    case KEY_RIGHT: return kKeyRight;
    case KEY_PPAGE: return kKeyPageUp;
    case KEY_NPAGE: return kKeyPageDown;
    case KEY_HOME: return kKeyHome;
    case KEY_END: return kKeyEnd;
    case KEY_ENTER:
    case '\n':
    case '\r': return kKeyEnter;
    case 27: return kKeyEscape;
    case KEY_BACKSPACE:
    case 127:
    case 8: return kKeyBackspace;
    default: return key;
  }
}

void draw(const ReaderModel& model) {
  const ReaderView view = model.view();
  erase();
  attron(A_REVERSE);
  mvaddstr(0, 0, view.title.c_str());
  for (int x = getcurx(stdscr); x > 0 && x < COLS; ++x) addch(' ');
  attroff(A_REVERSE);
  for (size_t i = 0; i < view.lines.size() && static_cast<int>(i) + 1 < LINES - 2; ++i) {
    const bool selected = static_cast<int>(i) == view.selected;
    if (selected) attron(A_REVERSE);
    mvaddstr(static_cast<int>(i) + 1, 0, view.lines[i].c_str());
    if (selected) {
      for (int x = getcurx(stdscr); x > 0 && x < COLS; ++x) addch(' ');
      attroff(A_REVERSE);
    }
  }
  attron(A_DIM);
  mvaddstr(LINES - 2, 0, view.help.c_str());
  attroff(A_DIM);
  mvaddstr(LINES - 1, 0, view.status.c_str());
  refresh();
}

// Text is UTF-8 whatever the environment says; ncursesw needs a locale that agrees.
void useUtf8Locale() {
  std::setlocale(LC_ALL, "");
  if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
}

}  // namespace

Result<void> runReaderScreen(ReaderModel& model, MainQueue& queue) {
  if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO)) {
    return fail(kLecternErrorDomain, 1, "The reader needs a terminal",
                "Run `lectern read` in a terminal; `lectern list` and `lectern show` work in scripts.");
  }
  useUtf8Locale();
  // newterm rather than initscr, which would end the program when $TERM is unknown.
  SCREEN* screen = newterm(nullptr, stdout, stdin);
  if (!screen) return fail(kLecternErrorDomain, 1, "The terminal could not be set up", "Check $TERM.");
  cbreak();
  noecho();
  nonl();
  keypad(stdscr, TRUE);
  set_escdelay(25);
  curs_set(0);
  // Whole lines are written again rather than moved: simpler for every terminal.
  idlok(stdscr, FALSE);
  idcok(stdscr, FALSE);
  timeout(kKeyWaitMilliseconds);
  model.resize(LINES, COLS);
  draw(model);
  while (!model.finished()) {
    const int key = getch();
    if (key == KEY_RESIZE) {
      model.resize(LINES, COLS);
    } else if (key != ERR) {
      model.handleKey(translate(key));
    }
    // Completions of marks and the refresh's progress arrive here; the network never blocks the loop.
    queue.drain();
    draw(model);
  }
  endwin();
  delscreen(screen);
  return {};
}

}  // namespace lectern
