#include "signature.h"

#include <fmt/format.h>

#include "kernel_line.h"
#include "reason.h"

namespace report {
namespace {

constexpr int kVersion = 1;  // of the rules below; any change of them increments it
constexpr size_t kTellingFrames = 3;
constexpr std::string_view kNothing = "-";

// FNV-1a, of 64 bits.
constexpr uint64_t kHashStart = 0xcbf29ce484222325;
constexpr uint64_t kHashPrime = 0x100000001b3;

uint64_t HashOf(std::string_view text) {
  uint64_t hash = kHashStart;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * kHashPrime;
  return hash;
}

void AddName(std::vector<std::string_view>* names, std::string_view name) {
  const bool repeated = !names->empty() && names->back() == name;  // a recursion's depth differs
  if (!repeated && names->size() < kTellingFrames) names->push_back(name);
}

// Functions inlined at a frame count as frames of their own, as they are in a build without.
std::vector<std::string_view> TellingNames(const Thread& thread) {
  std::vector<std::string_view> names;
  for (const Frame* frame : thread.user) {
    for (const std::string_view inlined : frame->inlined_plain) AddName(&names, inlined);
    if (frame->telling) AddName(&names, frame->plain);
  }
  return names;
}

std::string_view KindOfWait(const Thread& thread) {
  const UserWait user = WaitOnTopOf(thread.user);
  if (user.wait == nullptr) return thread.user.empty() ? "kernel" : "no wait";
  return user.wait->kind.empty() ? user.function : user.wait->kind;
}

std::vector<std::string_view> KernelNames(const Thread& thread) {
  std::vector<std::string_view> names;
  for (const std::string_view frame : thread.kernel) AddName(&names, KernelFunction(frame));
  return names;
}

}  // namespace

std::vector<std::string_view> SignatureFunctions(const Incident& incident) {
  const Thread* const thread = incident.Watched();
  if (thread == nullptr) return {};
  return thread->user.empty() ? KernelNames(*thread) : TellingNames(*thread);
}

void SetSignature(Incident* incident) {
  const Thread* const thread = incident->Watched();
  const std::vector<std::string_view> names = SignatureFunctions(*incident);
  incident->signature = fmt::format(
      "{}: {}: {}: {}", incident->program.value_or(kNothing), incident->watch.value_or(kNothing),
      thread == nullptr ? kNothing : KindOfWait(*thread),
      names.empty() ? std::string(kNothing) : fmt::format("{}", fmt::join(names, " < ")));
  incident->signature_id = fmt::format("{}-{:016x}", kVersion, HashOf(incident->signature));
}

}  // namespace report
