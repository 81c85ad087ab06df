// A pool of workers that watches each job, under the job's own name and timeout, and tells at the
// end how near each kind of job came to its timeout.

#include <quorvel/durations.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

using namespace std::chrono_literals;

struct Job {
  const char* name;  // a literal: the incident prints it
  std::chrono::seconds timeout;
  std::function<void()> run;
};

class WorkerPool {
 public:
  explicit WorkerPool(int workers) {
    for (int i = 0; i < workers; ++i) workers_.emplace_back([this] { Work(); });
  }

  // Runs the jobs that are left, then ends the workers.
  ~WorkerPool() {
    {
      std::lock_guard lock(mutex_);
      closed_ = true;
    }
    changed_.notify_all();
    for (std::thread& worker : workers_) worker.join();
  }

  void Add(Job job) {
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back(std::move(job));
    }
    changed_.notify_one();
  }

 private:
  void Work() {
    Job job;
    while (Next(&job)) {
      // The name alone is captured: the callable may still run when the job is gone.
      quorvel::MeasuredWatch watch(
          job.name, job.timeout, [name = job.name] { std::printf("%s hangs\n", name); },
          quorvel::kLog | quorvel::kBacktrace);
      job.run();
    }
  }

  bool Next(Job* job) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
    if (jobs_.empty()) return false;
    *job = std::move(jobs_.front());
    jobs_.pop_front();
    return true;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  bool closed_ = false;
  std::vector<std::thread> workers_;
};

int main() {
  quorvel_init();
  {
    WorkerPool pool(2);
    for (int i = 0; i < 100; ++i) {
      pool.Add({"thumbnail", 1s, [] { std::this_thread::sleep_for(1ms); }});
    }
    pool.Add({"index", 10s, [] { std::this_thread::sleep_for(200ms); }});
    pool.Add({"upload", 1s, [] { std::this_thread::sleep_for(4s); }});
  }
  quorvel::PrintDurations(stdout);
}
