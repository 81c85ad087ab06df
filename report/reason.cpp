#include "reason.h"

#include <fmt/format.h>

#include <algorithm>

#include "kernel_line.h"

namespace report {
namespace {

constexpr std::string_view kUnknown = "unknown";
constexpr std::string_view kRunning = "running";

const Wait* FirstKernelWait(const std::vector<std::string_view>& kernel) {
  for (const std::string_view frame : kernel) {
    if (const Wait* const wait = FindKernelWait(KernelFunction(frame)); wait != nullptr)
      return wait;
  }
  return nullptr;
}

bool IsStopped(char state) {
  return state == 'T' || state == 't';
}

// True when the kernel part of the log says that the thread did not wait.
bool KernelSaysRunning(const Thread& thread) {
  if (thread.state != '\0') return thread.state == 'R' && thread.kernel.empty();
  return !thread.kernel.empty() &&
         std::all_of(thread.kernel.begin(), thread.kernel.end(), [](std::string_view frame) {
           return IsInterruptFrame(KernelFunction(frame)) || frame.substr(0, 2) == "0x";
         });
}

// True when the kernel part does not say that the thread waited.
bool MayRun(const Thread& thread) {
  if (thread.state != '\0') return thread.state == 'R';
  return thread.kernel.empty();
}

std::string InFunction(std::string_view words, const UserWait& user, const Thread& thread) {
  if (!user.function.empty()) return fmt::format("{}, in {}", words, user.function);
  if (!thread.kernel.empty()) {
    return fmt::format("{}, in the kernel's {}", words, KernelFunction(thread.kernel.front()));
  }
  return std::string(words);
}

Reason Running(const Thread& thread, const UserWait& user) {
  if (user.wait != nullptr) return {kRunning, fmt::format("runs, last seen in {}", user.function)};
  if (thread.user.empty()) return {kRunning, "runs"};
  return {kRunning, fmt::format("runs, in {}", thread.user.front()->plain)};
}

Reason Unknown(const Thread& thread, const UserWait& user) {
  if (user.wait != nullptr) {
    return {kUnknown,
            InFunction(user.wait->words, user, thread) + "; the log does not tell for what"};
  }
  if (!thread.kernel.empty()) return {kUnknown, InFunction("waits", user, thread)};
  if (thread.user.empty() && thread.failed) {
    return {kUnknown, thread.failed->empty()
                          ? "its stack could not be read"
                          : fmt::format("its stack could not be read: {}", *thread.failed)};
  }
  return {kUnknown, "the log does not tell"};
}

}  // namespace

UserWait WaitOnTopOf(const std::vector<const Frame*>& user) {
  UserWait found;
  for (size_t i = 0; i < user.size() && user[i]->role != Role::kOwn; ++i) {
    const Wait* const wait = FindUserWait(user[i]->plain);
    if (wait == nullptr) continue;
    if (found.wait == nullptr || !wait->kind.empty() || found.wait->kind.empty()) {
      found.wait = wait;
      found.function = CanonicalWaitName(user[i]->plain);
    }
    found.frames = i + 1;
  }
  return found;
}

const Frame* FindOwnFrame(const std::vector<const Frame*>& user) {
  const auto found = std::find_if(user.begin(), user.end(), [](const Frame* frame) {
    return frame->role == Role::kOwn && !frame->system;
  });
  return found == user.end() ? nullptr : *found;
}

Reason FindReason(const Thread* thread) {
  if (thread == nullptr) return {kUnknown, "the log has no stack of the watched thread"};
  const UserWait user = WaitOnTopOf(thread->user);
  if (IsStopped(thread->state)) return {"stopped", InFunction("is stopped", user, *thread)};
  if (KernelSaysRunning(*thread)) return Running(*thread, user);
  const Wait* const kernel = FirstKernelWait(thread->kernel);
  if (kernel != nullptr &&
      (kernel->kind != "futex" || user.wait == nullptr || user.wait->kind.empty())) {
    return {kernel->kind, InFunction(kernel->words, user, *thread)};
  }
  if (user.wait != nullptr && !user.wait->kind.empty()) {
    return {user.wait->kind, InFunction(user.wait->words, user, *thread)};
  }
  const bool in_own_code = !thread->user.empty() && !thread->user.front()->function.empty() &&
                           thread->user.front()->role != Role::kWaiting;
  if (in_own_code && MayRun(*thread)) return Running(*thread, user);
  return Unknown(*thread, user);
}

}  // namespace report
