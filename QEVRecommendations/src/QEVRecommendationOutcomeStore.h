#pragma once

#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>

#include <stop_token>
#include <vector>

// Outcome learning for the process: whether it is on, and the outcome log
// in the memory store (read and written through QEVR::Memory).
//
// Thread safety: `lock` guards `isLearning`. `writeLock` serialises the
// read-modify-write of the log so that two recordings never lose one
// another; it is held across that file work and nothing else.
class QEVRecommendationOutcomeStore {
 public:
  static QEVRecommendationOutcomeStore& shared();

  void setLearning(bool enabled);
  bool learning() const;

  // False, with a log line, while learning is off. Throws
  // QEVRCancellationError and the memory store's errors.
  bool record(const QEVRecommendation& recommendation, QEVRecommendationOutcome outcome,
              std::stop_token stop);
  // The log's histories with their effects and hold-back flags; empty for a
  // log that does not decode.
  std::vector<QEVRecommendationOutcomeHistory> histories(std::stop_token stop);
  // `generated` without what learning holds back; unchanged while it is
  // off or when the log cannot be read. Throws only QEVRCancellationError.
  std::vector<QEVRecommendation> holdBack(std::vector<QEVRecommendation> generated,
                                          std::stop_token stop);

 private:
  QEVRecommendationOutcomeStore() = default;

  mutable qevr::Mutex lock;
  bool isLearning QEVR_GUARDED_BY(lock) = false;
  qevr::Mutex writeLock;
};
