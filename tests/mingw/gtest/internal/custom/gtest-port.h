// Port settings for GoogleTest built with MinGW's win32 thread model, which has no std::mutex
// or std::condition_variable. GoogleTest needs those only for the start signal of the threads
// it creates itself; the test programs never make it create one.
#pragma once

#include <atomic>

#define GTEST_HAS_NOTIFICATION_ 1

namespace testing {
namespace internal {

// Start signal for a thread made by GoogleTest: a flag the waiting thread polls.
class Notification {
 public:
  Notification() : m_bNotified(false) {}
  Notification(const Notification&) = delete;
  Notification& operator=(const Notification&) = delete;
  void Notify() { m_bNotified.store(true); }
  void WaitForNotification() {
    while (!m_bNotified.load()) {
    }
  }

 private:
  std::atomic<bool> m_bNotified;
};

}  // namespace internal
}  // namespace testing
