#include "support/log_capture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace {

constexpr size_t kMaxLines = 4096;

struct Slot {
  std::atomic<bool> ready;
  char text[4300];
};
Slot g_slots[kMaxLines];
std::atomic<size_t> g_used{0};

void Receive(const __android_log_message* message) {
  const size_t place = g_used.fetch_add(1);
  if (place >= kMaxLines) return;
  Slot& slot = g_slots[place];
  const char priority = "??VDIWEFS"[message->priority];
  snprintf(slot.text, sizeof(slot.text), "%c/%s: %s", priority, message->tag, message->message);
  slot.ready.store(true, std::memory_order_release);
}

}  // namespace

LogCapture::LogCapture() {
  Clear();
  __android_log_set_logger(Receive);
}

std::vector<std::string> LogCapture::Lines(const std::string& prefix) const {
  std::vector<std::string> lines;
  for (size_t i = 0; i < std::min(g_used.load(), kMaxLines); ++i) {
    if (!g_slots[i].ready.load(std::memory_order_acquire)) continue;
    const std::string text = g_slots[i].text;
    if (text.compare(0, prefix.size(), prefix) == 0) lines.push_back(text.substr(prefix.size()));
  }
  return lines;
}

bool LogCapture::Has(const std::string& text) const {
  return testing::Matches(testing::Contains(testing::HasSubstr(text)))(Lines());
}

void LogCapture::Clear() {
  for (size_t i = 0; i < std::min(g_used.load(), kMaxLines); ++i) g_slots[i].ready.store(false);
  g_used.store(0);
}
