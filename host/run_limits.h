// What ends a command that would otherwise run for ever.
#pragma once

#include <cstdint>
#include <optional>

#include "qor_common/descriptor_notifier.h"
#include "qor_common/unique_fd.h"

namespace pmhost {

// SIGINT and SIGTERM, a time, or a count that another thread reaches.
class RunLimits {
 public:
  // Blocks the two signals, for the calling thread and all that it starts afterwards: call it before any
  // thread. Commands that don't are ended by them at once, as any program.
  static void BlockSignals();

  // While it lives the two signals end the program at once, if the calling thread is its only one that takes
  // them.
  class Unblocked {
   public:
    Unblocked();
    ~Unblocked();
    Unblocked(const Unblocked&) = delete;
    Unblocked& operator=(const Unblocked&) = delete;
  };

  // `seconds` from now; absent: no limit.
  explicit RunLimits(std::optional<double> seconds);

  // From any thread: the command has done what it was asked for.
  void Finish() { m_finished.Notify(); }

  // Returns when the command is to end, and takes the signal if it was one.
  void Wait();
  // The command is to end now.
  [[nodiscard]] bool AreReached() const { return Poll(0); }

 private:
  bool Poll(int timeout) const;

  qor::DescriptorNotifier m_finished;
  qor::UniqueFd m_signals;
  qor::UniqueFd m_timer;  // empty: no limit
};

}  // namespace pmhost
