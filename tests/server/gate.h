// A gate that commands of the tests wait at, so that a test can hold
// requests in progress and see what the server does meanwhile.
#pragma once

#include <condition_variable>
#include <mutex>

namespace qktest {

class Gate {
  public:
    // Called by a command: counts it in, then waits until the gate opens.
    void Pass() {
        std::unique_lock<std::mutex> lock(mutex_);
        inside_++;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
        inside_--;
    }
    // Waits until `count` commands wait at the gate.
    void AwaitInside(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this, count] { return inside_ >= count; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int inside_ = 0;
    bool open_ = false;
};

}  // namespace qktest
