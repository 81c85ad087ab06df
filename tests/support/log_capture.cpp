#include "support/log_capture.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ostream>

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

void Copy(char* to, size_t size, const char* from) {
  snprintf(to, size, "%s", from != nullptr ? from : "");
}

void Receive(const __android_log_message* message) {
  const size_t place = g_used.fetch_add(1);
  if (place >= kMaxLines) return;
  Slot& slot = g_slots[place];
  slot.priority = message->priority;
  Copy(slot.tag, sizeof(slot.tag), message->tag);
  Copy(slot.file, sizeof(slot.file), message->file);
  Copy(slot.text, sizeof(slot.text), message->message);
  slot.ready.store(true, std::memory_order_release);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << line.priority << ' ' << line.tag << ": " << line.text;
}

LogCapture::LogCapture() {
  Clear();
  __android_log_set_logger(Receive);
}

LogCapture::~LogCapture() {
  __android_log_set_logger(nullptr);
}

std::vector<LogLine> LogCapture::Lines() const {
  std::vector<LogLine> lines;
  const size_t used = std::min(g_used.load(), kMaxLines);
  for (size_t i = 0; i < used; ++i) {
    const Slot& slot = g_slots[i];
    if (!slot.ready.load(std::memory_order_acquire)) continue;
    lines.push_back({slot.priority, slot.tag, slot.text, slot.file});
  }
  return lines;
}

std::vector<LogLine> LogCapture::Lines(int priority) const {
  std::vector<LogLine> lines = Lines();
  lines.erase(std::remove_if(lines.begin(), lines.end(),
                             [&](const LogLine& line) { return line.priority != priority; }),
              lines.end());
  return lines;
}

bool LogCapture::Has(const std::string& text) const {
  return Count(text) > 0;
}

int LogCapture::Count(const std::string& text) const {
  const std::vector<LogLine> lines = Lines();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
    return line.text.find(text) != std::string::npos;
  }));
}

void LogCapture::Clear() {
  const size_t used = std::min(g_used.load(), kMaxLines);
  for (size_t i = 0; i < used; ++i) g_slots[i].ready.store(false);
  g_used.store(0);
}
