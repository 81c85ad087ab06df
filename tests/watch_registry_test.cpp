#include "core/watch_registry.h"

#include <android-base/stringprintf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "core/monitor_thread.h"
#include "support/fakes.h"
#include "support/log_capture.h"

namespace {

using android::base::StringPrintf;

// What the watch calls and a tick promise, in the plainest form.
struct Model {
  uint32_t started = QuorvelStartedCount();
  int32_t cursor = 0;
  std::deque<uint32_t> free;      // indices, the next one to be used first
  std::array<uint32_t, 128> ids;  // of the armed watches
  std::array<size_t, 128> slot_of;
  std::array<std::vector<uint32_t>, 64> wheel;
  std::string message;  // that the last call is to log

  Model() {
    ids.fill(QUORVEL_INVALID_ID);
    for (uint32_t i = 0; i < ids.size(); ++i) free.push_back(i);
  }

  void Link(uint32_t id, int32_t timeout) {
    slot_of[id % 512] = static_cast<size_t>((int64_t{cursor} + timeout) % 64);
    wheel[slot_of[id % 512]].push_back(id);
  }
  bool IsArmed(uint32_t id) const { return id % 512 < 128 && ids[id % 512] == id; }
  void Unlink(uint32_t id) {
    std::vector<uint32_t>& slot = wheel[slot_of[id % 512]];
    slot.erase(std::find(slot.begin(), slot.end(), id));
  }
  void Release(uint32_t id) {
    ids[id % 512] = QUORVEL_INVALID_ID;
    free.push_back(id % 512);
  }

  uint32_t Start(int32_t timeout) {
    if (timeout < 1 || timeout > 60) return QUORVEL_INVALID_ID;
    if (free.empty()) return message = "No free quorvel node\n", QUORVEL_INVALID_ID;
    const uint32_t id = free.front() + started++ * 512;
    ids[free.front()] = id;
    free.pop_front();
    Link(id, timeout);
    return id;
  }
  uint32_t Update(uint32_t id, int32_t timeout) {
    if (!IsArmed(id) || timeout < 0 || timeout > INT_MAX - cursor) return QUORVEL_INVALID_ID;
    Unlink(id);
    Link(id, timeout);
    return id;
  }
  void End(uint32_t id) {
    if (IsArmed(id)) {
      Unlink(id);
      Release(id);
    } else {
      message = StringPrintf(id % 512 < 128 ? "quorvel_end: alrealy release id 0x%x ?\n"
                                            : "quorvel_end: not valid id 0x%x\n",
                             id);
    }
  }
  std::vector<uint32_t> Tick() {
    std::vector<uint32_t> fired;
    fired.swap(wheel[static_cast<size_t>(cursor)]);
    for (const uint32_t id : fired) Release(id);
    cursor = (cursor + 1) % 64;
    return fired;
  }
};

class WatchRegistry : public testing::Test {
 protected:
  WatchRegistry() { ArmWithoutMonitor(); }

  uint32_t Random(size_t count) { return static_cast<uint32_t>(random_() % count); }
  int32_t RandomTimeout() {
    constexpr int32_t kOdd[] = {INT_MIN, -64, -1, INT_MAX, INT_MAX - 30, INT_MAX - 63};
    return Random(4) == 0 ? kOdd[Random(std::size(kOdd))] : static_cast<int32_t>(Random(140));
  }
  // Armed and past ones, and some that never were.
  uint32_t RandomId() {
    const uint32_t id = recent_[Random(recent_.size())];
    return Random(8) == 0 ? id ^ (1u << Random(32)) : Random(50) == 0 ? QUORVEL_INVALID_ID : id;
  }

  std::minstd_rand random_{20251116};
  std::array<uint32_t, 256> recent_ = {};
  ScopedFakes restore_;
  LogCapture log_;
};

TEST_F(WatchRegistry, AMillionRandomOperationsAgreeWithTheModel) {
  Model model;
  QuorvelMonitor monitor;
  uint32_t full = 0;
  size_t fullest_slot = 0;
  for (uint32_t step = 0; step < 1000000; ++step) {
    const uint32_t ticks = step / 10000 % 4 == 0 ? 2 : 25;  // percent: crowded and sparse in turn
    const uint32_t kind = Random(100);
    if (kind < ticks) {
      const std::vector<uint32_t> fired = model.Tick();
      QuorvelCollectExpired(&monitor);
      ASSERT_EQ(static_cast<size_t>(monitor.count), fired.size()) << step;
      for (size_t i = 0; i < fired.size(); ++i) ASSERT_EQ(monitor.batch[i].id, fired[i]) << step;
      fullest_slot = std::max(fullest_slot, fired.size());
    } else if (kind < 75) {
      const int32_t timeout = static_cast<int32_t>(Random(64)) - 1;
      const uint32_t id = __quorvel_start_ex("n", timeout, nullptr, nullptr, 0);
      ASSERT_EQ(id, model.Start(timeout)) << step;
      if (id != QUORVEL_INVALID_ID) recent_[id / 512 % recent_.size()] = id;
      if (!model.message.empty()) ++full;
    } else if (kind < 88) {
      const uint32_t id = RandomId();
      const int32_t timeout = RandomTimeout();
      ASSERT_EQ(quorvel_update(id, timeout), model.Update(id, timeout)) << step;
    } else {
      const uint32_t id = RandomId();
      quorvel_end(id);
      model.End(id);
    }
    const std::vector<LogLine> lines = log_.Lines();
    ASSERT_EQ(lines.size(), model.message.empty() ? 0u : 1u) << step << model.message;
    if (!lines.empty()) {
      ASSERT_EQ(lines[0], Error(model.message)) << step;
    }
    log_.Clear();
    model.message.clear();
    ASSERT_EQ(QuorvelStartedCount(), model.started) << step;
    ASSERT_EQ(QuorvelStartedCount() - QuorvelEndedCount(), 128 - model.free.size()) << step;
  }
  // The run went where it is meant to.
  EXPECT_GT(full, 1000u);
  EXPECT_GT(fullest_slot, 5u);
}

}  // namespace
