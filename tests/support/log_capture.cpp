#include "support/log_capture.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace {

constexpr size_t kMaxLines = 4096;

struct Slot {
  std::atomic<bool> ready;
  int priority;
  char tag[64];
  char file[64];
  char text[4200];
};
Slot g_slots[kMaxLines];
std::atomic<size_t> g_used{0};

void Receive(const __android_log_message* message) {
  const size_t place = g_used.fetch_add(1);
  if (place >= kMaxLines) return;
  Slot& slot = g_slots[place];
  slot.priority = message->priority;
  snprintf(slot.tag, sizeof(slot.tag), "%s", message->tag);
  snprintf(slot.file, sizeof(slot.file), "%s", message->file != nullptr ? message->file : "");
  snprintf(slot.text, sizeof(slot.text), "%s", message->message);
  slot.ready.store(true, std::memory_order_release);
}

}  // namespace

LogCapture::LogCapture() {
  Clear();
  __android_log_set_logger(Receive);
}

std::vector<LogLine> LogCapture::Lines(int priority) const {
  std::vector<LogLine> lines;
  for (size_t i = 0; i < std::min(g_used.load(), kMaxLines); ++i) {
    const Slot& slot = g_slots[i];
    const bool ready = slot.ready.load(std::memory_order_acquire);
    if (!ready || (priority != -1 && slot.priority != priority)) continue;
    lines.push_back({slot.priority, slot.tag, slot.text, slot.file});
  }
  return lines;
}

bool LogCapture::Has(const std::string& text) const {
  const std::vector<LogLine> lines = Lines();
  return std::any_of(lines.begin(), lines.end(), [&](const LogLine& line) {
    return line.text.find(text) != std::string::npos;
  });
}

void LogCapture::Clear() {
  for (size_t i = 0; i < std::min(g_used.load(), kMaxLines); ++i) g_slots[i].ready.store(false);
  g_used.store(0);
}
