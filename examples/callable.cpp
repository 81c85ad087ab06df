// Two watches around work that can be cancelled: the first writes down why it hangs, the second, a
// second later, cancels it by a callable that captures `this`. One watch for both would cancel
// first and then write the stacks of work that does not hang any more: an incident's callable is
// called before its stacks are written. The second watch has to wait until the first one's incident
// is complete, and without kLog and kBacktrace no rate limit drops it.

#include <quorvel/watch.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

using namespace std::chrono_literals;

class Database {
 public:
  // False when it was cancelled.
  bool Flush() {
    const quorvel::Watch report("flush-db", 1s, quorvel::kLog | quorvel::kBacktrace);
    quorvel::Watch cancel("flush-db-cancel", 2s, [this] { Cancel(); });
    if (!report.armed() || !cancel.armed()) std::fputs("flush-db is not fully watched\n", stderr);
    {
      // Unlocked before cancel ends: its end waits for a Cancel that runs, and that locks it too.
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return written_ || cancelled_; });
    }
    cancel.End();
    if (cancel.fired()) std::puts("flush-db hung and was cancelled");
    std::lock_guard lock(mutex_);
    return written_;
  }

 private:
  void Cancel() {
    {
      std::lock_guard lock(mutex_);
      cancelled_ = true;
    }
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool written_ = false;  // this disk never answers
  bool cancelled_ = false;
};

int main() {
  quorvel_init();
  Database database;
  return database.Flush() ? 1 : 0;
}
