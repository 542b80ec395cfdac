#include "host/run_limits.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <iterator>
#include <system_error>

namespace pmhost {
namespace {

sigset_t EndingSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  return signals;
}

qor::UniqueFd Checked(int fd, const char* what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return qor::UniqueFd(fd);
}

qor::UniqueFd MakeTimer(double seconds) {
  qor::UniqueFd timer = Checked(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "timerfd_create");
  itimerspec time{};
  time.it_value.tv_sec = static_cast<time_t>(seconds);
  time.it_value.tv_nsec = std::max(1L, static_cast<long>((seconds - std::floor(seconds)) * 1e9));
  ::timerfd_settime(timer.Get(), 0, &time, nullptr);
  return timer;
}

}  // namespace

void RunLimits::BlockSignals() {
  const sigset_t signals = EndingSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

RunLimits::Unblocked::Unblocked() {
  const sigset_t signals = EndingSignals();
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

RunLimits::Unblocked::~Unblocked() {
  BlockSignals();
}

RunLimits::RunLimits(std::optional<double> seconds) {
  const sigset_t signals = EndingSignals();
  m_signals = Checked(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd");
  if (seconds) m_timer = MakeTimer(*seconds);
}

void RunLimits::Wait() {
  static_cast<void>(Poll(-1));
  signalfd_siginfo taken{};
  [[maybe_unused]] const ssize_t count = ::read(m_signals.Get(), &taken, sizeof(taken));  // none of a time
}

// False: nothing came in so many milliseconds.
bool RunLimits::Poll(int timeout) const {
  pollfd descriptors[] = {
      {.fd = m_finished.GetDescriptor(), .events = POLLIN, .revents = 0},
      {.fd = m_signals.Get(), .events = POLLIN, .revents = 0},
      {.fd = m_timer.Get(), .events = POLLIN, .revents = 0},  // -1 is passed over by poll
  };
  int ready = 0;
  do {
    ready = ::poll(descriptors, std::size(descriptors), timeout);
  } while (ready < 0 && errno == EINTR);
  return ready != 0;
}

}  // namespace pmhost
