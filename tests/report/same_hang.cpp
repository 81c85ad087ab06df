// One hang, built by two compilers and with two optimisations, whose signature must be the same.
//
//     same_hang          waits for a mutex through a template, a lambda and std::function
//     same_hang inlined  the same through a function that an optimising compiler inlines
#include <quorvel/quorvel.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#define NOINLINE __attribute__((noinline))

namespace {

std::mutex g_orders;
volatile bool g_never = false;

template <typename Item>
class Ledger {
 public:
  NOINLINE void Append(const Item& item, std::vector<Item>* items) {
    const std::lock_guard<std::mutex> lock(g_orders);
    items->push_back(item);
  }
};

NOINLINE void Book(int amount) {
  std::vector<std::string> items;
  Ledger<std::string>().Append(std::to_string(amount), &items);
  g_never = items.empty();
}

inline void Settle(std::mutex* mutex) {
  mutex->lock();
  g_never = true;
  mutex->unlock();
}

NOINLINE void Close() {
  Settle(&g_orders);
  g_never = false;
}

NOINLINE void Watched(const std::function<void()>& work) {
  const uint32_t watch =
      __quorvel_start_ex("book", 1, nullptr, nullptr, QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
  work();
  quorvel_end(watch);
}

}  // namespace

int main(int argc, char**) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  quorvel_init();
  g_orders.lock();
  const bool inlined = argc > 1;
  std::thread worker([inlined] {
    Watched([inlined] {
      if (inlined) Close();
      if (!inlined) Book(1);
      g_never = false;
    });
  });
  for (;;) pause();
}
