#pragma once

#include <functional>

#include "core/Error.h"

namespace lectern {

class MainQueue;
class ReaderModel;

// Runs the terminal reader on the terminal of stdin/stdout with ncurses: draws `model`, hands it
// the keys and runs the main queue's work between keys (waiting at most a tenth of a second for
// a key), until the model is finished. Main thread only. Fails when there is no terminal.
Result<void> runReaderScreen(ReaderModel& model, MainQueue& queue);

}  // namespace lectern
