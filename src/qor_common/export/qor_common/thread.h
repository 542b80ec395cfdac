// A thread that is joined by its owner.
#pragma once

#include <pthread.h>

#include <memory>
#include <optional>

#include "zym/result.h"

namespace qor {

// Empty, or one thread that runs until its function returns. The owner makes it stop and then joins it;
// the destructor joins what was not joined.
class Thread {
 public:
  Thread() = default;
  ~Thread() { Join(); }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Runs `(object->*function)()` on a new thread. A failure is the error of pthread_create(3) by
  // ErrnoToResult.
  template <class T, class R>
  zym::result_t Create(R (T::*function)() noexcept, T* object) {
    struct Call {
      R (T::*function)() noexcept;
      T* object;
    };
    auto call = std::make_unique<Call>(Call{function, object});
    const auto run = [](void* argument) -> void* {
      const std::unique_ptr<Call> owned(static_cast<Call*>(argument));
      static_cast<void>((owned->object->*owned->function)());
      return nullptr;
    };
    pthread_t thread{};
    const int error = ::pthread_create(&thread, nullptr, run, call.get());
    if (error != 0) return zym::ErrnoToResult(error);
    static_cast<void>(call.release());  // the thread owns it now
    m_thread = thread;
    return zym::ZYM_OK;
  }

  void Join() noexcept {
    if (!m_thread) return;
    ::pthread_join(*m_thread, nullptr);
    m_thread.reset();
  }

 private:
  std::optional<pthread_t> m_thread;
};

}  // namespace qor
