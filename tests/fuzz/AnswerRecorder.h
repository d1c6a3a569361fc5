#pragma once

// Records the answers a transport receives, in the order they complete, in the form the sync
// fuzz target reads: answers apart by "\n--\n", a status other than 200 as a first line
// "HTTP N". The services tests record their mock servers' answers this way when
// LECTERN_RECORD_ANSWERS names a folder; each test becomes a seed of the sync fuzz target.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "net/Transport.h"

namespace lectern::fuzz {

class AnswerRecorder {
 public:
  // `transport` carries the requests; the recorder only listens.
  static std::unique_ptr<Transport> wrap(std::unique_ptr<Transport> transport,
                                         std::shared_ptr<AnswerRecorder> recorder);

  void record(int statusCode, std::string body);
  void clear();
  // The seed: the service's index byte, then the answers.
  std::string seed(unsigned char serviceIndex) const;

 private:
  mutable std::mutex lock_;
  std::vector<std::string> answers_;
};

// The folder named by LECTERN_RECORD_ANSWERS, or "" when recording is off.
std::string answerRecordingFolder();
// Writes the recorder's seed for the service whose name starts the current test suite's name
// ("FeedbinSyncTest" -> feedbin); nothing when no service matches or nothing was recorded.
void writeAnswerSeed(const AnswerRecorder& recorder, const std::string& suite, const std::string& test);

}  // namespace lectern::fuzz
